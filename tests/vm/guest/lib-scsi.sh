# SPDX-License-Identifier: GPL-2.0-only
# A SCSI disk in the machine's memory.

# scsi_disk [PARAMETERS of scsi_debug]: makes one; its node goes to $SCSI.
scsi_disk() {
  local entry
  [ ! -d /sys/module/scsi_debug ] || rmmod scsi_debug
  load_kernel_module scsi_debug "$@" || fail "scsi_debug cannot be loaded"
  SCSI=
  for _ in $(seq 100); do
    for entry in /sys/block/sd*; do
      [ "$(cat "$entry/device/model" 2>/dev/null | tr -d ' ')" != scsi_debug ] || SCSI=/dev/${entry##*/}
    done
    [ -z "$SCSI" ] || [ ! -b "$SCSI" ] || return 0
    sleep 0.1
  done
  fail "there is no disk of scsi_debug"
}
