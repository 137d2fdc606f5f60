#!/usr/bin/env bash
# check_objects.sh unfused|private OBJECT...
#
# unfused: no object holds a fused multiply-add, which rounds once where results define two
#          roundings.
# private: every weak definition is a template of ours that names its InstructionSet. The linker
#          keeps one copy of a weak symbol for the whole program; one that a kernel built for wide
#          registers shares with ordinary code could end up in use on a processor without them.
set -euo pipefail

# x86-64: vfmadd231pd, vfmaddsub132ps, vfnmsub213sd, ...; aarch64: fmadd, fmla, ...
fused='\b(vfn?m(add|sub)[a-z0-9]*|fn?m(add|sub)|fml[as])\b'
ours='^(([a-z ]+|pblinalg::cpu::[A-Za-z]+)[*&]* )?pblinalg::cpu::[A-Za-z0-9_]+<.*\(pblinalg::cpu::InstructionSet\)[0-9]'

check=$1
shift
[[ $# -gt 0 ]] || { echo "no objects given"; exit 1; }

faults=0
for object in "$@"; do
    case $check in
        unfused)
            code=$("${OBJDUMP:-objdump}" --disassemble --no-show-raw-insn "$object")
            found=$(grep -oE "$fused" <<<"$code" | sort -u | sed 's/^/fuses: /' || true)
            ;;
        private)
            symbols=$("${NM:-nm}" --demangle --defined-only "$object")
            found=$(sed -nE 's/^[0-9a-f]+ [WVu] //p' <<<"$symbols" | grep -vE "$ours" |
                sed 's/^/shares: /' || true)
            ;;
        *)
            echo "unknown check: $check"
            exit 1
            ;;
    esac
    [[ -z $found ]] && continue
    echo "$object"
    sed 's/^/    /' <<<"$found"
    faults=1
done
exit $faults
