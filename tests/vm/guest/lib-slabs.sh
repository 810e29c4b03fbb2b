# SPDX-License-Identifier: GPL-2.0-only
# The kernel's lists of slab caches.

slab_lists() {
  awk 'NR > 2 { print "slabinfo", $1 }' /proc/slabinfo | sort
  [ ! -d /sys/kernel/slab ] || ls -l /sys/kernel/slab | awk 'NR > 1 { print "sysfs", $9, $10, $11 }'
}
# expect_lists LISTS WHAT: they are as they were.
expect_lists() {
  local now
  now=$(slab_lists)
  [ "$now" = "$1" ] || fail "$2 left something in the lists of slab caches: $(diff <(echo "$1") <(echo "$now") | grep '^[<>]' | head -5)"
}
# expect_named COUNT DEVICE: the driver's three caches for a backup of this device stand there so many times.
expect_named() {
  local name counted number
  number=$(printf '%02x%02x' 0x"$(stat -c %t "$2")" 0x"$(stat -c %T "$2")")
  for name in "qdrHT$number" "qdrCP$number" "qdrDC$number"; do
    counted=$(slab_lists | grep -cx "slabinfo $name" || true)
    [ "$counted" = "$1" ] || fail "/proc/slabinfo names $name $counted times, not $1"
    [ ! -d /sys/kernel/slab ] || [ "$1" = 0 ] || [ -d "/sys/kernel/slab/$name" ] || fail "there is no /sys/kernel/slab/$name"
  done
}
