# SPDX-License-Identifier: GPL-2.0-only
# After a test: whatever it left is put away; what cannot be is printed.

# Of the tests: with systemd there are others, and these are in a control group of their own.
processes() {
  if [ -d /run/systemd/system ]; then
    ps -o pid=,ppid= -p "$(paste -sd , /sys/fs/cgroup/system.slice/vm-test.service/cgroup.procs)"
  else
    ps -eo pid=,ppid=
  fi
}

mapped_devices() { dmsetup info -c --noheadings -o name 2>/dev/null | grep -v '^No devices'; }

clean_up() {
  echo "7 4 1 7" >/proc/sys/kernel/printk
  touch /run/stop-writers
  local try line count me=$BASHPID
  for try in $(seq 50); do
    count=0
    # All but this program and its parent, the kernel's threads, and the programs of this very line.
    for line in $(processes | awk -v me=$me -v init=$$ -v parent=$PPID '$1 != init && $1 != parent && $1 != 1 && $1 != 2 && $2 != 2 && $1 != me && $2 != me { print $1 }'); do
      kill -KILL "$line" 2>/dev/null && count=$((count + 1))
    done
    [ $count != 0 ] || break
    sleep 0.1
  done
  rm -f /run/stop-writers
  awk '$2 ~ "^/mnt/" { print $2 }' /proc/mounts | sort -r | while read -r line; do
    fsfreeze -u "$line" 2>/dev/null
    umount "$line" || echo "$line cannot be unmounted"
  done
  local left
  left=$(references)
  if [ -n "$left" ]; then
    [ "$left" = 0 ] || echo "the module has $left references left"
    rmmod quendrel || echo "the module cannot be unloaded"
  fi
  # One may stand on others.
  for try in 1 2 3; do
    [ ! -x /sbin/dmsetup ] || for line in $(mapped_devices); do dmsetup remove --retry "$line" >/dev/null 2>&1; done
  done
  [ ! -x /sbin/dmsetup ] || for line in $(mapped_devices); do echo "$line cannot be removed"; done
  for line in /sys/block/md*/md/array_state; do
    [ ! -f "$line" ] || unstack_md "${line%/md/array_state}" || echo "${line%/md/array_state} cannot be stopped"
  done
  losetup -D 2>/dev/null
  [ ! -d /sys/module/brd ] || rmmod brd || echo "brd cannot be unloaded"
  [ ! -d /sys/module/scsi_debug ] || rmmod scsi_debug || echo "scsi_debug cannot be unloaded"
  rm -rf "${STORE:?}"/* /mnt/* 2>/dev/null
  sync
  true
}
