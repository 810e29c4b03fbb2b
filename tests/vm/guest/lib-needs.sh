# SPDX-License-Identifier: GPL-2.0-only
# What a test may need of the kernel and the machine: `need` prints what is missing.

load_kernel_module() { # NAME [PARAMETERS]: one of the kernel's own that is not loaded at boot
  [ -d "/sys/module/$1" ] && [ $# = 1 ] && return
  local chain file name
  chain=$(grep -E "^$1 " $KIT/modules/chains) || return 1
  # The last one is it; before it stands what it depends on, and what it would like but not every processor has.
  for file in ${chain#* }; do
    name=$(sed 's/\.ko.*//; s/-/_/g' <<<"$file")
    if [ "$name" = "$1" ]; then
      shift
      insmod "$KIT/modules/$file" "$@"
      return
    fi
    [ -d "/sys/module/$name" ] || insmod "$KIT/modules/$file" 2>/dev/null || true
  done
}
need() { # prints what is missing
  case $1 in
    module) [ -f $KIT/quendrel.ko ] || echo "there is no module" ;;
    qbackup) [ -x $KIT/qbackup ] || echo "there is no static qbackup" ;;
    qbackup32)
      [ -x $KIT/qbackup32 ] || echo "there is no 32-bit qbackup beside the kernel's own"
      ;;
    program:*) [ -x "$KIT/${1#*:}" ] || echo "there is no program ${1#*:}" ;;
    installed:*) [ -x "${1#*:}" ] || echo "the root file system has no ${1#*:}" ;;
    fs:ext4) grep -qwF "$(if old_kernel; then echo ext3; else echo ext4; fi)" /proc/filesystems || echo "the kernel has no ext4" ;;
    fs:*) grep -qwF "${1#*:}" /proc/filesystems || echo "the kernel has no ${1#*:}" ;;
    dm) grep -qw device-mapper /proc/misc /proc/devices || echo "the kernel has no device mapper" ;;
    loop | fuse | brd | scsi_debug | dm_flakey)
      load_kernel_module "$1" 2>/dev/null || [ -d "/sys/module/$1" ] || echo "the kernel has no $1"
      ;;
    kernel:*) load_kernel_module "${1#*:}" 2>/dev/null || [ -d "/sys/module/${1#*:}" ] || echo "the kernel has no ${1#*:}" ;;
    nvme) [ -n "$(nvme_disk)" ] || echo "the machine has no NVMe disk" ;;
    trim) [ "$(cat "/sys/block/${DISK##*/}/queue/discard_max_bytes" 2>/dev/null || echo 0)" != 0 ] || echo "the tested disk takes no discards" ;;
    flush) [ -f "/sys/block/${DISK##*/}/queue/write_cache" ] || echo "the kernel's driver of the tested disk sends no flushes" ;;
    unplug) [ -f /sys/bus/pci/rescan ] || echo "the kernel cannot let a disk go while it runs" ;;
    young-kernel) ! old_kernel || echo "this kernel lacks calls that Debian 12's servers make" ;;
    single-freeze) ! old_kernel || echo "this kernel counts freezes: a second one is no error" ;;
    noted-changes) ! old_kernel || echo "on this kernel the driver cannot see such changes" ;;
    md)
      load_kernel_module md_mod 2>/dev/null
      ! old_kernel && [ -f /sys/module/md_mod/parameters/new_array ] || echo "the kernel makes no md arrays by name"
      ;;
    request-functions) old_kernel || echo "the queues of this kernel have no function to replace" ;;
    loop-partitions) ! old_kernel || echo "this kernel's loop devices have no partitions" ;;
    poison)
      [ "$(cat /sys/kernel/slab/kmalloc-64/poison 2>/dev/null)" = 1 ] || echo "the kernel does not mark memory that is free (slub_debug=FZPU)"
      ;;
    failslab)
      mountpoint -q /sys/kernel/debug || mount -t debugfs debugfs /sys/kernel/debug 2>/dev/null
      [ -f /sys/kernel/debug/failslab/require-start ] || echo "the kernel cannot let the allocations of one module fail"
      ;;
    fail_make_request)
      mountpoint -q /sys/kernel/debug || mount -t debugfs debugfs /sys/kernel/debug 2>/dev/null
      [ -f /sys/kernel/debug/fail_make_request/probability ] || echo "the kernel cannot let requests to a disk fail"
      ;;
    package) [ -d $KIT/package ] || echo "there is no package for this kernel" ;;
    tools) [ -x $KIT/tools/usr/bin/qbackup ] || echo "the tools' package was not made" ;;
    daemon) [ -x $KIT/daemon/usr/sbin/quendreld ] || echo "the daemon's package was not made" ;;
    userfaultfd) [ -f /proc/sys/vm/unprivileged_userfaultfd ] || echo "the kernel lets no program bring the pages of another" ;;
    swap) [ -f /proc/swaps ] || echo "the kernel does not swap" ;;
    lockdep) [ -f /proc/lockdep_stats ] || echo "the kernel has no lock checker" ;;
    parameter:*) modinfo -F parm $KIT/quendrel.ko 2>/dev/null | grep -q "^${1#*:}:" || echo "the module has no parameter ${1#*:}" ;;
    loose) [ -n "$LOOSE" ] && [ -b "$LOOSE" ] || echo "the disk that can be unplugged is gone" ;;
    *) echo "the test needs '$1', of which nothing is known" ;;
  esac
}
missing_need() { # TEST
  local word
  for word in $(sed -n 's/^# needs: *//p' "$KIT/guest/tests/$1"); do need "$word"; done | head -1
}
