# SPDX-License-Identifier: GPL-2.0-only
# Marks in the host's log of the tested disk, and the proof of restored images by it.

# Tells the host's log of the tested disk where we are: writes a sector with this text, past all file systems.
mark() {
  local at=${MARK_SECTOR:-40}
  printf 'quendrel-vm-marker %s-%s\n' "$TEST" "$1" | dd of="$DISK" bs=512 seek="$at" count=1 conv=sync,notrunc,fsync oflag=direct iflag=fullblock status=none
}
# marked_backup LABEL DEVICE [OPTIONS]: a backup whose moment lies between two marks.
marked_backup() {
  local label=$1
  shift
  mark "before-$label"
  backup "$@"
  mark "after-$label"
}
# prove LABEL BACKUP REGION EXTENTS: restores the backup and has the host compare it with every state that the disk
# had between the two marks. EXTENTS: where the device lies on the tested disk, START+SECTORS, joined by commas.
prove() {
  local label=$1 from=$2 place=$3 extents=$4
  expect 0 qbackup -q restore --from "$from" --to "$place" --force
  # The host reads the disk that holds the region.
  sync "$place"
  host judge "${JUDGED:-tested}" "$TEST-before-$label" "$TEST-after-$label" "$extents" "$(start_of "$place")"
}
extent() { echo "$(start_of "$1")+$(sectors "$1")"; }
# true_backup MODE DEVICE: a file of the file system on DEVICE, which is not mounted, is changed; then a backup is of that
# mode, and restored it is what the device holds.
true_backup() {
  local mode=$1 device=$2 path
  mkdir -p /mnt/true
  mount "$device" /mnt/true
  head -c 100000 /dev/urandom >"/mnt/true/$RANDOM"
  sync_fs /mnt/true
  mount -o remount,ro /mnt/true
  backup "$device"
  expect_mode "$mode"
  path=$(report_field path)
  umount /mnt/true
  expect 0 qbackup -q restore --from "$path" --to "$(region 1)" --force
  cmp -n $(($(blockdev --getsz "$device") / 8 * 4096)) "$device" "$(region 1)" || fail "the restored backup is not what $device holds"
}
expect_noted() { # DISK HOW: the driver has seen what changed the disk
  dmesg | grep "quendrel: ${1##*/} $2: its next backup, and that of each of its partitions, reads everything" >/dev/null ||
    fail "the driver has not seen that ${1##*/} $2"
  dmesg -C
}
