#!/usr/bin/env bash
# Rooms of src/ include only what stands below them: check_includes.sh SRC_DIR.
set -euo pipefail
cd "$1"

declare -A may_include=(
    [core]="core"
    [gates]="core gates"
    [kernels]="core gates kernels"
    [apply]="core gates kernels apply"
    [circuits]="core gates kernels apply circuits"
    [readout]="core gates kernels apply readout"
    [oracles]="core gates kernels apply oracles"
    [observables]="core gates kernels apply readout observables"
    [mpi]="core gates kernels apply circuits readout observables oracles mpi"
    [gradients]="core gates kernels apply circuits readout observables gradients"
    [batches]="core batches"
    [state]="core gates kernels apply circuits readout oracles observables state"
    [trajectories]="core gates kernels apply circuits readout observables trajectories"
)

status=0
for folder in */; do
    room=${folder%/}
    if [[ -z ${may_include[$room]:-} ]]; then
        echo "src/$room: no rule says what it may include"
        status=1
        continue
    fi
    while IFS=: read -r file line include; do
        included=${include#*\"}
        if [[ " ${may_include[$room]} " != *" ${included%%/*} "* ]]; then
            echo "src/$file:$line: $room may not include ${included%\"*}"
            status=1
        fi
    done < <(grep -rn '^#include "' "$room")
done
exit $status
