# SPDX-License-Identifier: GPL-2.0-only
# The machine's disks, file systems on them, and what is asked of those.

disk_of() { # SERIAL
  local entry
  if [ ! -f /sys/block/vda/serial ]; then
    # An old kernel: the order of their addresses on the bus.
    case $1 in root) echo /dev/vda ;; tested) echo /dev/vdb ;; spare) echo /dev/vdc ;; store) echo /dev/vdd ;; loose) echo /dev/vde ;; esac
    return
  fi
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
number() { echo "$((0x$(stat -c %t "$1"))):$((0x$(stat -c %T "$1")))"; } # of a device, MAJOR:MINOR
start_of() { cat "/sys/class/block/${1##*/}/start" 2>/dev/null || echo 0; }

# Waits for the nodes of a disk's partitions, which an old kernel leaves to a program of its own.
settle() {
  local entry try
  for entry in /sys/block/"${1##*/}"/"${1##*/}"*; do
    for try in $(seq 250); do [ ! -b "/dev/${entry##*/}" ] || break; sleep 0.02; done
    [ -b "/dev/${entry##*/}" ] || fail "there is no /dev/${entry##*/}"
  done
}
# Cuts a disk into partitions of these sizes in MiB.
partition() {
  local disk=$1 size
  shift
  wipefs -qa "$disk"
  for size; do echo "size=${size}MiB, type=83"; done | sed '1i label: dos' | sfdisk -q --wipe=always --wipe-partitions=always "$disk" >/dev/null
  settle "$disk"
}
# A kernel that knows less of disk layouts than the programs.
old_kernel() { [[ $(uname -r) = 2.6.* ]]; }
make_fs() { # TYPE DEVICE [MiB]
  case $1 in
    ext*)
      local type=$1
      # On an old kernel its own file system stands in for the younger one.
      ! old_kernel || [ "$type" != ext4 ] || type=ext3
      mke2fs -q -t "$type" -b "${BLOCK_SIZE:-4096}" -E lazy_itable_init=0,nodiscard -F "$2" ${3:+${3}m}
      ;;
    xfs)
      # The program refuses small file systems except to its own tests.
      local layout=
      ! old_kernel || layout="-m crc=0,finobt=0,rmapbt=0,reflink=0,bigtime=0,inobtcount=0 -i sparse=0,projid32bit=0,nrext64=0 -n ftype=0"
      # shellcheck disable=SC2086
      TEST_DIR=1 TEST_DEV=1 QA_CHECK_FS=1 mkfs.xfs -q -f -K --unsupported $layout ${3:+-d size=${3}m} "$2"
      ;;
    btrfs) mkfs.btrfs -q -f -M ${3:+-b ${3}m} "$2" ;;
  esac
}
# check_fs TYPE DEVICE: the file system's own checker finds nothing.
check_fs() {
  local wrong
  case $1 in
    ext4-without-journal)
      # Such a file system notes nowhere which files are deleted and still open: what they had is lost space.
      e2fsck -fn "$2" >/run/e2fsck.log 2>&1 || true
      wrong=$(grep -vE '^(Deleted inode [0-9]+ has zero dtime\.|(Block|Inode) bitmap differences: [ ()0-9-]*$|Fix\? no|Pass [1-5]: |e2fsck |$)|still has errors| files \(' /run/e2fsck.log || true)
      [ -z "$wrong" ] || fail "e2fsck says of the restored $2: $wrong"
      ;;
    ext*)
      # A freeze may come between the end of a file's last name and that of the file; the next mount finishes it.
      if dumpe2fs -h "$2" 2>/dev/null | grep -q '^First orphan inode:'; then
        mkdir -p /mnt/checked && mount "$2" /mnt/checked && umount /mnt/checked || fail "the restored file system on $2 cannot be mounted"
      fi
      expect 0 e2fsck -fn "$2"
      ;;
    xfs)
      # Mounting lets xfs finish what its log says about the moment of the freeze.
      mkdir -p /mnt/checked && mount -o nouuid "$2" /mnt/checked && umount /mnt/checked || fail "the restored xfs on $2 cannot be mounted"
      if old_kernel; then expect 0 xfs_db -r -c check "$2"; else expect 0 xfs_repair -n "$2"; fi
      ;;
  esac
}
