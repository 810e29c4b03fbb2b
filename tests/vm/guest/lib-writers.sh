# SPDX-License-Identifier: GPL-2.0-only
# Load on a file system.

# Writes out one file system; all of them on a kernel from before that was possible.
sync_fs() { sync -f "$1" 2>/dev/null || sync; }

WRITERS=()
# start_writers DIRECTORY [TRIM]: checked random writes, files made and removed, and fstrim where the disk takes it, until stop_writers.
start_writers() {
  local directory=$1
  local trims=${2:-} layout=
  [ -z "$(need trim)" ] || trims=
  # Xfs of such a kernel reports an asynchronous write to a hole before a read can find it: leave it none.
  ! old_kernel || layout="--fallocate=none --overwrite=1"
  # A process of its own session would outlive a test that fails; a thread does not.
  (
    cd "$directory"
    # shellcheck disable=SC2086
    exec fio --name=checked --filename=checked.fio --size=8m --rw=randwrite --bs=4k --ioengine=libaio --iodepth=8 --direct=1 \
      --verify=crc32c --verify_backlog=64 --verify_fatal=1 --time_based --runtime=$((600 * SLOWNESS)) --rate_iops=600 \
      --thread $layout --output=/run/fio.log
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
      [ $((n % 40)) != 0 ] || sync_fs .
      if [ "$trims" = trim ] && [ $((n % 60)) = 0 ]; then fstrim .; fi
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
