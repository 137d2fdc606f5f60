#!/usr/bin/env bash
# ranks.sh N PROGRAM...: runs a program on N ranks of this machine, more than it has processors if
# need be, as root too.
set -euo pipefail
ranks=$1
shift
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
# Waiting ranks leave their processor to others.
exec mpirun --oversubscribe --bind-to none --mca mpi_yield_when_idle 1 -n "$ranks" "$@"
