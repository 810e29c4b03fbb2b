#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# Compiles every source of the core as a kernel would and looks at the objects: a symbol that is neither the core's own
# nor named by the contract, or a section that no kernel loader runs, is an error.
#
# usage: core_objects.sh 32|64 [compiler]
set -euo pipefail

word=$1
compiler=${2:-g++}
top=$(cd "$(dirname "$0")/../.." && pwd)
core=$top/quendrel/2.6
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

common="-std=gnu++20 -O2 -Wall -Wextra -Werror -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics
  -fno-use-cxa-atexit -fno-unwind-tables -fno-asynchronous-unwind-tables -fno-sized-deallocation -fno-stack-protector
  -fcheck-new -nostdinc++ -nostdlib -fno-pic -fno-pie -fcf-protection=none -fno-tree-loop-distribute-patterns
  -fno-strict-overflow -fno-delete-null-pointer-checks -mno-sse -mno-mmx"
case $word in
32) flags="-m32 -march=i686 -mregparm=3 -freg-struct-return -mno-80387 -msoft-float" ;;
64) flags="-m64 -mno-red-zone -mcmodel=kernel -mno-sse2 -mno-80387 -msoft-float" ;;
*) echo "usage: core_objects.sh 32|64 [compiler]" >&2; exit 2 ;;
esac

objects=()
for source in "$core"/*/*.cpp; do
  object=$work/$(basename "${source%.cpp}").o
  # shellcheck disable=SC2086
  "$compiler" $common $flags -I"$top/platform" -I"$top/tests/freestanding/kernel$word" -I"$core" -c "$source" -o "$object"
  objects+=("$object")
done
[ ${#objects[@]} -ge 10 ] || { echo "only ${#objects[@]} sources found below $core" >&2; exit 1; }

# Linked together, what is still undefined is what the core asks of its platform.
case $word in 32) ld -r -m elf_i386 -o "$work/core.o" "${objects[@]}" ;; 64) ld -r -o "$work/core.o" "${objects[@]}" ;; esac

failed=0
while read -r symbol; do
  if ! grep -qE "(^|[ *])$symbol\(" "$top/platform/kernel.h"; then
    echo "undefined symbol that the contract does not name: $symbol" >&2
    failed=1
  fi
done < <(nm -u "$work/core.o" | awk '{print $2}')

forbidden='\.init_array|\.ctors|\.eh_frame|\.tdata|\.tbss|\.gcc_except_table|\.fini_array'
if readelf -SW "$work/core.o" | grep -E "$forbidden"; then
  echo "a section above is one that no kernel loader runs" >&2
  failed=1
fi
if nm "$work/core.o" | grep -E '__cxa_|_Zn[wa]|_Zd[la]|__udivdi3|__umoddi3|__divdi3|__moddi3|__atomic_|__popcount|_GLOBAL_OFFSET_TABLE_|_Unwind_'; then
  echo "a symbol above needs a run-time library" >&2
  failed=1
fi
[ $failed = 0 ] && echo "${#objects[@]} objects for $word bits: $(nm -u "$work/core.o" | wc -l) contract operations used, nothing else"
exit $failed
