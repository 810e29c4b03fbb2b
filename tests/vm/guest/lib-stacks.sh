# SPDX-License-Identifier: GPL-2.0-only
# Disks made of others, and what a backup of any of them has to stand.

# md devices are made through sysfs, without a superblock: what they are is known to the test alone.
stack_md() { # NAME LEVEL CHUNK-BYTES LAYOUT DEVICE...
  local md=/sys/block/$1/md device slot=0
  [ -d "$md" ] || echo "$1" >/sys/module/md_mod/parameters/new_array
  echo "$2" >"$md/level"
  echo $(($# - 4)) >"$md/raid_disks"
  [ "$3" = 0 ] || echo "$3" >"$md/chunk_size"
  [ "$4" = 0 ] || echo "$4" >"$md/layout"
  for device in "${@:5}"; do
    number "$device" >"$md/new_dev"
    echo $(($(sectors "$device") / 2 / 1024 * 1024)) >"$md/dev-${device##*/}/size"
    echo $slot >"$md/dev-${device##*/}/slot"
    slot=$((slot + 1))
  done
  [ "$2" = raid0 ] || echo $(($(sectors "$5") / 2 / 1024 * 1024)) >"$md/component_size"
  [ ! -f "$md/resync_start" ] || echo none >"$md/resync_start"
  echo active >"$md/array_state"
}
unstack_md() { # DIRECTORY in /sys/block
  [ "$(cat "$1/md/array_state")" = clear ] || echo clear >"$1/md/array_state"
}

# stack KIND P Q: makes a disk of two partitions; its node goes to $STACK.
stack() {
  local kind=$1 p=$2 q=$3 size
  size=$(sectors "$p")
  STACK=/dev/mapper/stack
  case $kind in
    linear) printf '0 %d linear %s 0\n%d %d linear %s 0\n' "$size" "$q" "$size" "$size" "$p" | dmsetup create stack ;;
    striped) dmsetup create stack --table "0 $((size * 2)) striped 2 16 $p 0 $q 0" ;;
    thin | thin-snapshot)
      printf '0 %d linear %s 0\n%d %d linear %s 16384\n' "$size" "$p" "$size" $((size - 16384)) "$q" | dmsetup create stack-data
      dmsetup create stack-meta --table "0 16384 linear $q 0"
      dd if=/dev/zero of=/dev/mapper/stack-meta bs=4096 count=1 status=none conv=fsync
      dmsetup create stack-pool --table "0 $(($(blockdev --getsz /dev/mapper/stack-data))) thin-pool /dev/mapper/stack-meta /dev/mapper/stack-data 128 0"
      dmsetup message stack-pool 0 create_thin 0
      dmsetup create stack --table "0 $((size - 16384)) thin /dev/mapper/stack-pool 0"
      ;;
    crypt) dmsetup create stack --table "0 $size crypt aes-xts-plain64 $(printf '%064d' 7) 0 $p 0" ;;
    multipath) dmsetup create stack --table "0 $size multipath 2 queue_mode bio 0 1 1 round-robin 0 2 1 $p 1000 $p 1000" ;;
    raid0) stack_md md7 raid0 65536 0 "$p" "$q" && STACK=/dev/md7 ;;
    # Mirrors that are said to be the same must be, or what is read depends on which one is asked.
    raid1 | raid10)
      dd if=/dev/zero of="$p" bs=1M count=$((size / 2048)) oflag=direct status=none
      dd if=/dev/zero of="$q" bs=1M count=$((size / 2048)) oflag=direct status=none
      if [ "$kind" = raid1 ]; then stack_md md7 raid1 0 0 "$p" "$q"; else stack_md md7 raid10 65536 258 "$p" "$q"; fi
      STACK=/dev/md7
      ;;
  esac
  [ -b "$STACK" ] || fail "the disk '$kind' could not be made"
}
unstack() { # KIND
  local name
  case $1 in
    raid*) unstack_md /sys/block/md7 ;;
    thin*) for name in stack stack-pool stack-meta stack-data; do dmsetup remove --retry $name; done ;;
    *) dmsetup remove --retry stack ;;
  esac
}

# Large direct writes beside the small ones: 1 MiB and more at a time, which such a disk cuts.
start_large_writers() { # DIRECTORY
  (
    cd "$1"
    exec fio --name=large --filename=large.fio --size=12m --rw=randwrite --bs=1280k --ioengine=libaio --iodepth=4 --direct=1 \
      --time_based --runtime=$((600 * SLOWNESS)) --rate=8m --thread --output=/run/fio-large.log
  ) 3>&- &
  LARGE=$!
}
stop_large_writers() {
  local status=0
  kill -INT $LARGE 2>/dev/null || fail "the writer of large blocks ended by itself: $(tail -3 /run/fio-large.log)"
  wait $LARGE || status=$?
  case $status in 0 | 128 | 130) ;; *) fail "fio ended with $status: $(tail -3 /run/fio-large.log)" ;; esac
}

# stacked KIND: a full backup and an increment under load, backups that are killed in the middle, one whose module goes at
# once after it; and the increment of a file system at rest, restored, is what the disk holds.
stacked() {
  local kind=$1 round path
  partition "$DISK" 48 48
  stack "$kind" "$(part "$DISK" 1)" "$(part "$DISK" 2)"
  make_fs ext4 "$STACK" 30
  mkdir -p /mnt/a
  mount "$STACK" /mnt/a
  # From here on its blocks are shared.
  if [ "$kind" = thin-snapshot ]; then
    dmsetup suspend stack
    dmsetup message stack-pool 0 create_snap 1 0
    dmsetup resume stack
  fi
  load
  start_writers /mnt/a
  start_large_writers /mnt/a
  sleep 1
  backup "$STACK"
  backup "$STACK"
  expect_mode inc
  check_restored "$(report_field path)"
  RANDOM=4711
  for round in $(seq "${ROUNDS:-8}"); do
    "$KIT/qbackup" -q backup --device "$STACK" --mode full --to $STORE >/run/killed.log 2>&1 3>&- &
    sleep "0.$(printf %03d $((RANDOM % 500)))"
    kill -KILL $! 2>/dev/null
    wait $! || [ $? = 137 ] || fail "backup $round ended before it was killed: $(tail -1 /run/killed.log)"
  done
  backup "$STACK" --mode full
  unload
  load
  backup "$STACK"
  stop_large_writers
  stop_writers
  sync_fs /mnt/a
  mount -o remount,ro /mnt/a
  backup "$STACK"
  expect_mode inc
  path=$(report_field path)
  umount /mnt/a
  expect 0 qbackup -q restore --from "$path" --to "$(region 1)" --force
  cmp -n $(($(blockdev --getsz "$STACK") / 8 * 4096)) "$STACK" "$(region 1)" || fail "the restored increment is not what the disk holds"
  unload
  unstack "$kind"
}
# A backup under load is a file system that its checker likes.
check_restored() { # BACKUP
  expect 0 qbackup -q restore --from "$1" --to "$(region 2)" --force
  check_fs ext4 "$(region 2)"
}
