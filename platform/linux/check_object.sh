#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Fails when the module contains what no kernel loader runs or what needs a C++ run-time library.
#
# usage: check_object.sh quendrel.ko KDIR
set -eu
bad=0
constructors='init_array|ctors|fini_array|'
# A kernel with a memory checker runs a module's constructors: in them the compiler tells it of our variables. The opposite, in
# destructors, it needs not be told.
! grep -qs '^CONFIG_CONSTRUCTORS=y' "$2/.config" || constructors=
if readelf -SW "$1" | grep -E " \.(${constructors}eh_frame|tdata|tbss|gcc_except_table)"; then
	echo "$1: the sections above are never run or need an unwinder" >&2
	bad=1
fi
if nm -u "$1" | grep -E ' (__cxa_|_Zn[wa]|_Zd[la]|_Z|__u?(div|mod)di3|__atomic_|__popcount|_GLOBAL_OFFSET_TABLE_|_Unwind_)'; then
	echo "$1: the symbols above need a run-time library" >&2
	bad=1
fi
exit $bad
