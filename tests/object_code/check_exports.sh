#!/usr/bin/env bash
# check_exports.sh [--update] LIBRARY
#
# Compares what the shared library exports with exported_symbols.txt beside this script: a name that
# vanishes breaks programs, one that slips in is kept for ever. --update writes the list anew, and
# its diff in the commit says what changed for users.
set -euo pipefail

list=$(dirname "${BASH_SOURCE[0]}")/exported_symbols.txt
update=false
if [[ ${1:-} == --update ]]; then
    update=true
    shift
fi
library=${1:?which library}

# Without addresses and kinds; constructors and destructors have several entry points of one name.
exported=$("${NM:-nm}" --dynamic --defined-only --demangle "$library" |
    sed -E 's/^[0-9a-f]+ [A-Za-z] //' | LC_ALL=C sort -u)
if $update; then
    printf '%s\n' "$exported" >"$list"
elif ! diff "$list" - <<<"$exported"; then
    echo "exports differ from $list ('<' is missing, '>' is new); if that is meant:"
    echo "    ${BASH_SOURCE[0]} --update $library"
    exit 1
fi
