#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Fails when the module contains what no kernel loader runs, what needs a C++ run-time library, or a call that a processor
# with indirect branch tracking would not let through.
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
# Linux 6.1: what a redirected function does is entered behind its first instruction. Where the processor lets calls by
# pointer arrive at marked places only, such a call would trap there: all of these are direct.
if nm "$1" | grep -q ' __SCK__bio_body$'; then
	entered=$(objdump -dr --no-show-raw-insn "$1" | awk '
		/^[0-9a-f]+ <.*>:$/ { of = $2 }
		of ~ /^<(submit_original|pass_on|qdr_submit|intercepted)[.>]/ && /__SCT__(bio|request)_body/ { direct++ }
		of ~ /^<(submit_original|pass_on|qdr_submit)[.>]/ && (/(call|jmp)l? +\*/ || /__x86_indirect_thunk/) { print of, $0 }
		END { if (!direct) print "no call of __SCT__bio_body" }')
	if [ -n "$entered" ]; then
		echo "$1: not entered by direct calls: $entered" >&2
		bad=1
	fi
fi
exit $bad
