# What every test has at hand. A test is a bash script that runs with errors ending it; see ../README.md.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DM_DISABLE_UDEV=1
KIT=/run/kit
STORE=/run/store
. $KIT/settings
[ ! -f /run/disks ] || . /run/disks

# ---- verdicts

fail() {
  echo "FAIL: $*"
  echo "$*" >/run/reason
  exit 1
}
skip() {
  echo "$*" >/run/reason
  exit 77
}
# expect STATUS COMMAND...: the command's exit status must be that; its output goes to $OUTPUT and the log.
expect() {
  local wanted=$1 status=0
  shift
  OUTPUT=$("$@" 2>&1) || status=$?
  echo "$OUTPUT"
  [ $status = "$wanted" ] || fail "'$*' ended with $status, not $wanted: $(tail -1 <<<"$OUTPUT")"
}
expect_text() { # REGEX, of the last expect
  grep -qiE "$1" <<<"$OUTPUT" || fail "the message does not say '$1': $(tail -1 <<<"$OUTPUT")"
}

# Asks the host; what it answers goes to $ANSWER.
host() {
  local word
  printf 'host %s\n' "$*" >&3
  read -r -u 3 word ANSWER
  [ "$word" = ok ] || fail "host $1: $ANSWER"
  echo "host $1: $ANSWER"
}

# ---- the machine's disks

disk_of() { # SERIAL
  local entry
  for entry in /sys/block/*; do
    if [ "$(cat "$entry/serial" 2>/dev/null || cat "$entry/device/serial" 2>/dev/null)" = "$1" ]; then
      echo "/dev/${entry##*/}"
      return
    fi
  done
}
find_disks() {
  {
    echo "DISK=$(disk_of tested)"
    echo "SPARE=$(disk_of spare)"
    echo "STORE_DISK=$(disk_of store)"
    echo "LOOSE=$(disk_of loose)"
  } >/run/disks
  . /run/disks
  [ -n "$DISK" ] && [ -n "$SPARE" ] && [ -n "$STORE_DISK" ]
}
nvme_disk() {
  local entry
  for entry in /sys/class/block/nvme*; do
    case ${entry##*/} in nvme*p* | 'nvme*') ;; *) echo "/dev/${entry##*/}" ;; esac
  done | head -1
}
region() { echo "$SPARE$1"; }         # the N-th place to restore into
part() { case $1 in *[0-9]) echo "${1}p$2" ;; *) echo "$1$2" ;; esac; } # DISK N
sectors() { cat "/sys/class/block/${1##*/}/size"; }
start_of() { cat "/sys/class/block/${1##*/}/start" 2>/dev/null || echo 0; }

# Cuts a disk into partitions of these sizes in MiB.
partition() {
  local disk=$1 size
  shift
  wipefs -qa "$disk"
  for size; do echo "size=${size}MiB, type=83"; done | sed '1i label: dos' | sfdisk -q --wipe=always --wipe-partitions=always "$disk" >/dev/null
}
make_fs() { # TYPE DEVICE [MiB]
  case $1 in
    ext*) mke2fs -q -t "$1" -b "${BLOCK_SIZE:-4096}" -E lazy_itable_init=0,nodiscard -F "$2" ${3:+${3}m} ;;
    xfs)
      # The program refuses small file systems except to its own tests.
      TEST_DIR=1 TEST_DEV=1 QA_CHECK_FS=1 mkfs.xfs -q -f -K --unsupported ${3:+-d size=${3}m} "$2"
      ;;
    btrfs) mkfs.btrfs -q -f -M ${3:+-b ${3}m} "$2" ;;
  esac
}
# check_fs TYPE DEVICE: the file system's own checker finds nothing.
check_fs() {
  case $1 in
    ext*) expect 0 e2fsck -fn "$2" ;;
    xfs)
      # Mounting lets xfs finish what its log says about the moment of the freeze.
      mkdir -p /mnt/checked && mount -o nouuid "$2" /mnt/checked && umount /mnt/checked || fail "the restored xfs on $2 cannot be mounted"
      expect 0 xfs_repair -n "$2"
      ;;
  esac
}

# ---- what a test needs

have_module_file() { grep -qE "^$1\.ko" $KIT/modules/order; }
load_kernel_module() { # NAME [PARAMETERS]: one of the kernel's own that is not loaded at boot
  [ -d "/sys/module/$1" ] && [ $# = 1 ] && return
  local file
  # Its dependencies stand before it.
  while read -r file; do
    case $file in "$1".ko*) break ;; esac
    [ -d "/sys/module/$(sed 's/\.ko.*//; s/-/_/g' <<<"$file")" ] || insmod "$KIT/modules/$file" 2>/dev/null || true
  done <$KIT/modules/order
  file=$(grep -E "^$1\.ko" $KIT/modules/order || grep -E "^${1//_/-}\.ko" $KIT/modules/order) || return 1
  shift
  insmod "$KIT/modules/$file" "$@"
}
need() { # prints what is missing
  case $1 in
    module) [ -f $KIT/quendrel.ko ] || echo "there is no module" ;;
    qbackup) [ -x $KIT/qbackup ] || echo "there is no static qbackup" ;;
    qbackup32)
      [ -x $KIT/qbackup32 ] || echo "there is no 32-bit qbackup beside the kernel's own"
      ;;
    program:*) [ -x "$KIT/${1#*:}" ] || echo "there is no program ${1#*:}" ;;
    fs:*) grep -qwF "${1#*:}" /proc/filesystems || echo "the kernel has no ${1#*:}" ;;
    dm) grep -qw device-mapper /proc/misc /proc/devices || echo "the kernel has no device mapper" ;;
    loop | brd | scsi_debug | dm_flakey)
      load_kernel_module "$1" 2>/dev/null || [ -d "/sys/module/$1" ] || echo "the kernel has no $1"
      ;;
    nvme) [ -n "$(nvme_disk)" ] || echo "the machine has no NVMe disk" ;;
    trim) [ "$(cat "/sys/block/${DISK##*/}/queue/discard_max_bytes" 2>/dev/null || echo 0)" != 0 ] || echo "the tested disk takes no discards" ;;
    parameter:*) modinfo -F parm $KIT/quendrel.ko 2>/dev/null | grep -q "^${1#*:}:" || echo "the module has no parameter ${1#*:}" ;;
    loose) [ -n "$LOOSE" ] && [ -b "$LOOSE" ] || echo "the disk that can be unplugged is gone" ;;
    *) echo "the test needs '$1', of which nothing is known" ;;
  esac
}
missing_need() { # TEST
  local word
  for word in $(sed -n 's/^# needs: *//p' "$KIT/guest/tests/$1"); do need "$word"; done | head -1
}

# ---- the driver

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
report_field() { sed -nE "s/^ *\"$1\": *\"?([^\",]*)\"?,?\$/\1/p" <<<"$OUTPUT" | head -1; }
expect_mode() { # full or incremental, of the last backup
  local mode
  mode=$(report_field mode)
  case $mode in "$1"*) ;; *) fail "the backup is '$mode', not $1" ;; esac
}
backups() { ls -d "$STORE/$1"/*/ 2>/dev/null | grep -v '/latest/' | sort; } # NAME

# ---- proof

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

# ---- load

WRITERS=()
# start_writers DIRECTORY [TRIM]: checked random writes, files made and removed, and fstrim, until stop_writers.
start_writers() {
  local directory=$1
  (
    cd "$directory"
    exec fio --name=checked --filename=checked.fio --size=8m --rw=randwrite --bs=4k --ioengine=libaio --iodepth=8 --direct=1 \
      --verify=crc32c --verify_backlog=64 --verify_fatal=1 --time_based --runtime=600 --rate_iops=600 \
      --output=/run/fio.log
  ) 3>&- &
  WRITERS+=($!)
  (
    cd "$directory"
    n=0
    while [ ! -e /run/stop-writers ]; do
      n=$((n + 1))
      mkdir -p churn
      head -c $((n * 7919 % 200000 + 1)) /dev/urandom >churn/$((n % 23)).new && mv churn/$((n % 23)).new churn/$((n % 23))
      [ $((n % 11)) != 0 ] || rm -f churn/$((n * 5 % 23))
      [ $((n % 40)) != 0 ] || sync -f .
      if [ "${2:-}" = trim ] && [ $((n % 60)) = 0 ]; then fstrim .; fi
      sleep 0.02
    done
  ) 3>&- &
  WRITERS+=($!)
}
stop_writers() {
  touch /run/stop-writers
  local status=0
  kill -INT "${WRITERS[0]}" 2>/dev/null || fail "fio ended by itself: $(tail -3 /run/fio.log)"
  wait "${WRITERS[0]}" || status=$?
  wait "${WRITERS[@]:1}" || fail "the file writer failed"
  WRITERS=()
  rm -f /run/stop-writers
  ! grep -qiE 'verify.*(bad|fail)|err=[^ 0]' /run/fio.log || fail "fio: $(grep -iE 'verify|err=' /run/fio.log | head -3)"
  case $status in 0 | 128 | 130) ;; *) fail "fio ended with $status: $(tail -3 /run/fio.log)" ;; esac
}

# ---- afterwards: whatever the test left is put away; what cannot be is printed

clean_up() {
  echo "7 4 1 7" >/proc/sys/kernel/printk
  touch /run/stop-writers
  local try line count me=$BASHPID
  for try in $(seq 50); do
    count=0
    # All but this program, the kernel's threads, and the programs of this very line.
    for line in $(ps -eo pid=,ppid= | awk -v me=$me '$1 != 1 && $1 != 2 && $2 != 2 && $1 != me && $2 != me { print $1 }'); do
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
  [ ! -x /sbin/dmsetup ] || dmsetup info -c --noheadings -o name 2>/dev/null | grep -v '^No devices' | while read -r line; do
    dmsetup remove --retry "$line" >/dev/null || echo "$line cannot be removed"
  done
  losetup -D 2>/dev/null
  [ ! -d /sys/module/brd ] || rmmod brd || echo "brd cannot be unloaded"
  [ ! -d /sys/module/scsi_debug ] || rmmod scsi_debug || echo "scsi_debug cannot be unloaded"
  rm -rf "${STORE:?}"/* /mnt/* 2>/dev/null
  sync
  true
}

# ---- the story that every kind of device goes through

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
    prove "$number" "${paths[number]}" "$(region $((number + 1)))" "$extents"
    check_fs "$type" "$(region $((number + 1)))"
  done
}
