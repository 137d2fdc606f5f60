#!/usr/bin/env bash
# A rank that is killed ends the job with a message; a run that goes on from its checkpoint, on another
# number of ranks, gives the bits of one that was not interrupted.
# check_interruption.sh RANKS.SH INTERRUPTED_RUN
set -euo pipefail
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT

if timeout 60 "$1" 4 "$2" killed "$directory/run" >"$directory/output" 2>&1; then
    echo "the job outlived a killed rank"
    exit 1
fi
grep -q 'signal 9' "$directory/output"
gates=$(sed -n 's/^gates //p' "$directory/run")
echo "killed after $gates gates"
[[ $gates -lt 8000 ]]
timeout 60 "$1" 2 "$2" resumed "$directory/run"
# The checkpoint of the end is the only one left.
[[ $(ls "$directory"/run.*) == "$directory/run.8000.npy" ]]
