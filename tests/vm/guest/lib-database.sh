# SPDX-License-Identifier: GPL-2.0-only
# What the tests of databases on the backed-up disk share: a file system for one, a chain of backups under its load, and the
# disk as it is restored. What has been committed is a line each in /run/committed.

committed() { wc -l </run/committed; }
mount_new() { # DIRECTORY: a file system of 150 MiB on DISK, whose partition is in $p then
  partition "$DISK" 150
  p=$(part "$DISK" 1)
  make_fs ext4 "$p"
  mkdir -p "$1"
  mount "$p" "$1"
}
mount_restored() { # BACKUP REGION: at /mnt/restored
  expect 0 qbackup -q restore --from "$1" --to "$(region "$2")" --force
  mkdir -p /mnt/restored
  mount "$(region "$2")" /mnt/restored
}
# 31 images, of which prune leaves the newest five every tenth time. $paths, and of each what was committed before it and what
# may have begun after it: $least, $most.
back_up_chain() { # REPOSITORY
  local number mode before
  expect 0 qbackup init "$1"
  for number in $(seq 0 30); do
    before=$(committed)
    expect 0 qbackup -q --json backup --device "$p" --to "$1"
    mode=inc
    [ "$number" != 0 ] || mode=full
    expect_mode $mode
    paths[number]=$(report_field path) least[number]=$before most[number]=$(($(committed) + 1))
    [ $((number % 10)) != 9 ] || expect 0 qbackup -q prune --from "$1" --keep-last 5
  done
}
# The oldest one that is left has taken up all before it.
expect_recovered() { # REPOSITORY COMMAND: with BACKUP REGION COMMITTED BEGUN, the database's own way to look at one
  local number
  [ "${least[30]}" -gt 100 ] || fail "only ${least[30]} records were committed"
  expect 0 qbackup -q verify --from "$1"
  for number in 25 28 30; do
    expect 0 qemu-img check -q "${paths[number]}"
    "$2" "${paths[number]}" $((number % 8 + 1)) "${least[number]}" "${most[number]}"
  done
}
