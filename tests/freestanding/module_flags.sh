#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# The module's C++ is compiled with the kernel's own flags but for those that are for C alone: a C++ compiler warns of
# them, and warnings are errors there. The flags here are such as kernels from 2.6.29 to today have.
#
# usage: module_flags.sh CXX
set -euo pipefail

top=$(cd "$(dirname "$0")/../.." && pwd)
cxx=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/Makefile" <<'END'
KBUILD_CFLAGS := -Wall -Wundef -std=gnu89 -std=gnu11 -fgnu89-inline -Wstrict-prototypes -Wmissing-prototypes \
	-Werror-implicit-function-declaration -Werror=implicit-function-declaration -Werror=implicit-int \
	-Werror=strict-prototypes -Werror=incompatible-pointer-types -Werror=designated-init -Wno-pointer-sign \
	-Wdeclaration-after-statement -fno-strict-aliasing -fno-common
KBUILD_CFLAGS_MODULE := -DMODULE
CC := gcc
obj := .
include $(QUENDREL)/platform/linux/Kbuild
flags:
	@echo '$(cxx_flags)'
END
flags=$(make -s -f "$work/Makefile" -C "$work" QUENDREL="$top" QUENDREL_WERROR=1 src="$top/platform/linux" srctree="$work" flags)
[[ $flags = *-fno-strict-aliasing* && $flags = *-Werror* ]] || {
  echo "these are not the flags of a compilation: $flags"
  exit 1
}
# The generated headers are no part of this.
flags=$(sed -E 's/-Wp,-MMD,[^ ]*//; s/-include [^ ]+//g' <<<"$flags")
# shellcheck disable=SC2086
$cxx $flags -x c++ -fsyntax-only /dev/null
