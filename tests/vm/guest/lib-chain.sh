# SPDX-License-Identifier: GPL-2.0-only
# The story that every kind of device goes through.

# chain TYPE DEVICE EXTENTS: the file system on DEVICE, mounted on /mnt/chain, is backed up in full and three times
# incrementally while writers work on it; each restored backup is proved and checked. TRIM=trim lets the writers trim,
# LAST is the number of incremental backups, OPTIONS are more options of qbackup.
chain() {
  local type=$1 device=$2 extents=$3 number mode paths=() copied=()
  mkdir -p /mnt/chain
  mount "$device" /mnt/chain
  start_writers /mnt/chain "${TRIM:-}"
  sleep 1
  for number in $(seq 0 "${LAST:-3}"); do
    marked_backup "$number" "$device" ${OPTIONS:-}
    mode=inc
    [ "$number" != 0 ] || mode=full
    expect_mode $mode
    paths+=("$(report_field path)")
    copied+=("$(report_field copiedBlocks)")
    sleep 1
  done
  stop_writers
  umount /mnt/chain
  for number in $(seq 1 "${LAST:-3}"); do
    [ "${copied[number]}" -lt "${copied[0]}" ] || fail "an incremental backup has copied ${copied[number]} blocks, the full one ${copied[0]}"
  done
  for number in $(seq 0 "${LAST:-3}"); do
    case $type in
      # It changes its metadata while they are being written, so QEMU's log may have others than the disk.
      ext4-without-journal) expect 0 qbackup -q restore --from "${paths[number]}" --to "$(region $((number + 1)))" --force ;;
      *) prove "$number" "${paths[number]}" "$(region $((number + 1)))" "$extents" ;;
    esac
    check_fs "$type" "$(region $((number + 1)))"
  done
}

# each_file_system: the same, with one incremental backup, on ext4, ext4 without a journal, and xfs, each made anew.
each_file_system() {
  local kind own=$TEST p
  # No page is changed while it is being written, for the same reason. An old kernel has them so.
  old_kernel || echo 1 >"/sys/block/${DISK##*/}/queue/stable_writes"
  partition "$DISK" 150
  p=$(part "$DISK" 1)
  load
  for kind in ext4 ext4-without-journal xfs; do
    # An old kernel's ext2 goes on while it is frozen.
    ! old_kernel || [ $kind != ext4-without-journal ] || continue
    wipefs -qa "$p"
    rm -rf "${STORE:?}"/*
    make_fs "${kind%%-*}" "$p"
    [ $kind != ext4-without-journal ] || tune2fs -O ^has_journal "$p"
    # The marks of each are its own.
    TEST=$own-$kind
    LAST=1 chain $kind "$p" "$(extent "$p")"
  done
  TEST=$own
  unload
}
