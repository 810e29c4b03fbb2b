#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Turns the operations of the contract (../kernel.h) into what a build on a kernel needs. Their names are the kernel's
# own, mostly with other arguments, so in the module each is called qk_NAME; the three of memory bytes are the kernel's
# as they are.
#
# usage: contract.sh names|prototypes < kernel.h
#   names       #defines for the core's C++ (NAME -> qk_NAME)
#   prototypes  C prototypes with the glue's types, so that the compiler checks each operation against the contract
set -eu

sed -n '/^extern "C" {/,/^}  \/\/ extern "C"/p' |
  sed -e '1d' -e '$d' -e 's|//.*||' |
  tr '\n' ' ' | sed -e 's/;/;\n/g' |
  sed -e 's/^ *//' -e 's/  */ /g' -e 's/ noexcept//' |
  grep '(' | grep -vE '[ *](memcpy|memset|memcmp)\(' |
  case ${1-} in
  names)
    sed -E 's/^[^(]*[ *]([a-z_0-9]+)\(.*/#define \1 qk_\1/;s/^\[\[.*[ *]([a-z_0-9]+)\(.*/#define \1 qk_\1/'
    ;;
  prototypes)
    sed -E \
      -e 's/int \(\*([a-z]+)\)\(void\*\)/int (*\1)(void *)/' \
      -e 's/^(\[\[noreturn\]\] )?([^(]*[ *])([a-z_0-9]+)\(/\1\2qk_\3(/' \
      -e 's/^(\[\[noreturn\]\]) (.*);/\2 __attribute__((noreturn));/' \
      -e 's/\b(block_device|gendisk|request_queue|super_block|buffer_head|bio|page|file|inode|vm_area_struct|vm_fault|kmem_cache|semaphore|rw_semaphore|completion)\*/struct \1 */g' \
      -e 's/struct (block_device|gendisk|request_queue|super_block|buffer_head|kmem_cache) /struct qdr_\1 /g' \
      -e 's/\bspinlock\*/spinlock_t */g' \
      -e 's/\bkernel_module\*/struct module */g' \
      -e 's/\b(file_operations|vm_operations|kernel_timespec)\*/struct qdr_\1 */g' \
      -e 's/\b(make_request_fn|bio_end_io_fn|bh_end_io_fn)\*/qdr_\1 */g' \
      -e 's/\b(user_addr|kdev_t|gfp_type|pid_type)\b/qdr_\1/g' \
      -e 's/\bsector_type\b/u64/g' -e 's/\bkernel_size_t\b/size_t/g' \
      -e 's/\(\)/(void)/'
    ;;
  *) echo "usage: contract.sh names|prototypes < kernel.h" >&2; exit 2 ;;
  esac
