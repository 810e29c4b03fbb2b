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
