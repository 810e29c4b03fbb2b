# SPDX-License-Identifier: GPL-2.0-only
# The module and qbackup: loading, backing up, a backup that is held in the middle.

PARAMETERS=/sys/module/quendrel/parameters
CONTROL=/dev/quendrel
load() { # [PARAMETERS]
  insmod $KIT/quendrel.ko "$@" || fail "the module cannot be loaded"
  [ -c $CONTROL ] || mknod $CONTROL c 120 0
}
unload() { rmmod quendrel || fail "the module cannot be unloaded"; }
references() { awk '$1 == "quendrel" { print $3 }' /proc/modules; }
held() { cat $PARAMETERS/held; }
expect_nothing_held() {
  local line
  line=$(held)
  ! grep -qE '=[^0]' <<<"$line" || fail "the module holds: $line"
}
qbackup() { "$KIT/${QBACKUP:-qbackup}" "$@"; }
# backup DEVICE [OPTIONS]: must succeed; its report goes to $OUTPUT.
backup() {
  local device=$1
  shift
  expect 0 qbackup -q --json backup --device "$device" --to $STORE "$@"
}
report_field() { sed -nE "s/.*\"$1\":\"([^\"]*)\".*/\1/p; t; s/.*\"$1\":([^,}]*)[,}].*/\1/p" <<<"$OUTPUT" | head -1; }
expect_mode() { # full or incremental, of the last backup
  local mode
  mode=$(report_field mode)
  case $mode in "$1"*) ;; *) fail "the backup is '$mode', not $1" ;; esac
}
backups() { ls -d "$STORE/$1"/*/ 2>/dev/null | grep -v '/latest/' | sort; } # NAME

# hush: the driver has a line for each wrong command; from here on the log stays in the kernel's memory. speak_up: it is
# written out again, and so is what all but the driver's functions have said meanwhile.
hush() {
  echo "1 4 1 7" >/proc/sys/kernel/printk
  dmesg -C
  echo "vm-test: hushed" >/dev/kmsg
}
speak_up() {
  dmesg >/run/log
  echo "7 4 1 7" >/proc/sys/kernel/printk
  head -1 /run/log | grep -q 'vm-test: hushed' || fail "the kernel has forgotten the first lines"
  sed 's/^\[[ 0-9.]*\] //' /run/log | grep -vE '^(qdr[A-Za-z]*|ioctl[A-Za-z]*|printStats|closeBackup|getDiskInfo|[a-z]+[A-Z][A-Za-z]*): ' >/run/said || true
  grep . /run/said | grep -v '^vm-test' | while read -r line; do echo "<1>$line" >/dev/kmsg; done
}

# hold_backup DEVICE [OPTIONS]: starts a backup and stops it in the middle of copying. resume_backup STATUS lets it go on
# and demands that exit status; its output goes to $OUTPUT.
hold_backup() {
  local device=$1 partial tries=0 file
  shift
  partial=$STORE/$(basename "$(readlink -f "$device")")
  # Not by the function: the process itself has to be stopped.
  "$KIT/${QBACKUP:-qbackup}" -q --json backup --device "$device" --to $STORE "$@" >/run/held-backup.log 2>&1 3>&- &
  HELD=$!
  # Without starting programs: the backup takes half a second.
  while :; do
    for file in "$partial"/.partial-*/data*; do [ ! -s "$file" ] || break 2; done
    tries=$((tries + 1))
    if [ $((tries % 1000)) = 0 ]; then
      kill -0 $HELD 2>/dev/null || fail "the backup ended before it could be held: $(tail -1 /run/held-backup.log)"
      [ $tries -lt 1000000 ] || fail "the backup does not come to copying"
    fi
  done
  kill -STOP $HELD
  local kib
  kib=$(du -sk --apparent-size "${file%/*}" | cut -f1)
  [ "${kib:-0}" -gt 0 ] && [ "$kib" -lt $(($(sectors "$(readlink -f "$device")") * 2 / 5)) ] ||
    fail "the backup could not be held in the middle: it has copied ${kib:-all} KiB"
  echo "held after $kib KiB"
}
resume_backup() {
  local status=0
  kill -CONT $HELD
  wait $HELD || status=$?
  OUTPUT=$(cat /run/held-backup.log)
  echo "$OUTPUT"
  [ $status = "$1" ] || fail "the held backup ended with $status, not $1: $(tail -1 /run/held-backup.log)"
}
