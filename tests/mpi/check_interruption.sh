#!/usr/bin/env bash
# Ctrl-C ends a job on all ranks, and so does a rank that is killed, with a message; a run that goes on
# from its checkpoint, on another number of ranks, gives the bits of one that was not interrupted.
# check_interruption.sh RANKS.SH INTERRUPTED_RUN
set -euo pipefail
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT

# wait_for TENTHS COMMAND...: until COMMAND succeeds
wait_for() {
    local left=$1
    until "${@:2}"; do
        ((left-- > 0)) || return 1
        sleep 0.1
    done
}

"$1" 2 "$2" endless "$directory/endless" &
job=$!
trap 'kill $job 2>/dev/null || true; rm -rf "$directory"' EXIT
wait_for 300 test -e "$directory/endless"
mapfile -t ranks < <(pgrep -f "endless $directory/endless" | grep -vx $job)
kill -INT $job
has_ended() {
    ! kill -0 "$@" 2>/dev/null
}
for process in $job "${ranks[@]}"; do
    wait_for 100 has_ended "$process" || {
        echo "process $process outlived Ctrl-C"
        exit 1
    }
done
if wait $job; then
    echo "an interrupted job ended well"
    exit 1
fi
[[ ${#ranks[@]} -eq 2 ]]

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
[[ $(ls "$directory"/run.*) == "$directory"/run.*.8000.npy ]]
