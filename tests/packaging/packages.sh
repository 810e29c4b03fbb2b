#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# One test of the Debian packages.
#
# usage: packages.sh TEST DIRECTORY      DIRECTORY: for the programs; kept, so that the next run is faster
#   QUENDREL_KDIR   build tree of the kernel that the module is built for; default: the one that tests/vm/fetch
#                   downloaded, else that of the running kernel
# Exit status: 0 passed, 1 failed, 77 skipped.
set -euo pipefail

test=$1
mkdir -p "$2"
place=$(cd "$2" && pwd)
top=$(cd "$(dirname "$0")/../.." && pwd)
version=$(sed -nE 's/^project\(quendrel VERSION ([0-9.]+).*/\1/p' "$top/CMakeLists.txt")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$*" >&2
  exit 1
}

# expect FILE PATTERN: the file has a line that matches.
expect() { grep -qE -- "$2" "$1" || fail "${1#"$work"/}: no line matches $2"; }

# unpack PACKAGE-FILE: into $work/tree and $work/control, after what holds for any package.
unpack() {
  local deb=$1 tree=$work/tree control=$work/control
  rm -rf "$tree" "$control"
  dpkg-deb -x "$deb" "$tree"
  dpkg-deb -e "$deb" "$control"
  (cd "$tree" && md5sum --quiet -c "$control/md5sums") || fail "md5sums do not match"
  [ "$(find "$tree" -type f | wc -l)" = "$(wc -l <"$control/md5sums")" ] || fail "md5sums do not name every file"
  [ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "the package is not of version $version"
  local wrong
  wrong=$(dpkg-deb -c "$deb" | awk '$2 != "root/root" || $1 !~ /^(drwxr-xr-x|-rw-r--r--|-rwxr-xr-x|lrwxrwxrwx)$/')
  [ -z "$wrong" ] || fail "owner or mode is wrong: $wrong"
  wrong=$(find "$tree" -type f -exec grep -lF "$top" {} + || true)
  [ -z "$wrong" ] || fail "the path of the checkout is in $wrong"
  wrong=$(find "$tree" -name '*.in' -o -name '*.orig' -o -name '*.o' -o -name '*.ko')
  [ -z "$wrong" ] || fail "left over: $wrong"
  wrong=$(grep -rlF '@VERSION@' "$tree" "$control" || true)
  [ -z "$wrong" ] || fail "without its version: $wrong"
  for script in preinst postinst prerm postrm; do
    [ ! -e "$control/$script" ] || { [ -x "$control/$script" ] && sh -n "$control/$script"; } || fail "$script is no program"
  done
  local page
  while IFS= read -r page; do
    gzip -dc "$page" | groff -mandoc -ww -Tutf8 -z 2>&1 | grep . && fail "$page has warnings"
  done < <(find "$tree/usr/share" -path '*/man/*' -name '*.gz')
  local package
  package=$(dpkg-deb -f "$deb" Package)
  [ -s "$tree/usr/share/doc/$package/copyright" ] || fail "no copyright file"
  gzip -dc "$tree/usr/share/doc/$package/changelog.gz" | head -1 | grep -qF "$package ($version)" || fail "no changelog"
  # Every command of the description line and its text: short, no line too long.
  dpkg-deb -f "$deb" Description | awk 'length > 80 { bad = 1 } END { exit bad }' || fail "a line of the description is too long"
}

dkms_package() {
  "$top/packaging/build" --only dkms --output "$work" >"$work/built"
  [ "$(cat "$work/built")" = "$work/quendrel-dkms_${version}_all.deb" ] || fail "packaging/build printed $(cat "$work/built")"
  unpack "$(cat "$work/built")"
}

dkms_package_is_sound() {
  dkms_package
  local tree=$work/tree source=$work/tree/usr/src/quendrel-$version
  expect "$tree/lib/modprobe.d/quendrel.conf" '^options quendrel exclusive=1$'
  grep -qF 'module_param(exclusive' "$top"/platform/linux/*.c || fail "the module has no parameter exclusive"
  expect "$tree/lib/modprobe.d/quendrel.conf" 'max_map_bytes='
  grep -qF 'module_param(max_map_bytes' "$top"/platform/linux/*.c || fail "the module has no parameter max_map_bytes"
  expect "$tree/usr/lib/modules-load.d/quendrel.conf" '^quendrel$'
  expect "$tree/lib/udev/rules.d/60-quendrel.rules" 'KERNEL=="quendrel".*RUN\+="quendrel-node '
  local major
  major=$(sed -nE 's/^#define QUENDREL_CHRDEV_MAJOR ([0-9]+)/\1/p' "$top/quendrel/2.6/quendrel.h")
  expect "$tree/lib/udev/quendrel-node" "mknod .* c $major 0\$"
  [ -x "$tree/lib/udev/quendrel-node" ] || fail "quendrel-node cannot be run"
  local status=0
  "$tree/lib/udev/quendrel-node" 2>/dev/null || status=$?
  [ $status = 2 ] || fail "quendrel-node without an argument ends with $status"
  for file in postinst prerm; do
    expect "$work/control/$file" "^version=$version\$"
  done
  [[ " $(dpkg-deb -f "$(cat "$work/built")" Depends | tr -d ,) " = *" dkms "*" g++ "* ]] || fail "dkms and g++ have to be there"
  # DKMS reads its file as bash.
  (
    kernel_source_dir=/the/kernel
    # shellcheck disable=SC1091
    . "$source/dkms.conf"
    [ "$PACKAGE_NAME/$PACKAGE_VERSION" = "quendrel/$version" ] || fail "dkms.conf is of $PACKAGE_NAME/$PACKAGE_VERSION"
    [ "${MAKE[0]}" = "./dkms-make /the/kernel" ] || fail "dkms.conf does not build for the kernel that it is given"
    for machine in x86_64 i686; do
      [[ $machine =~ $BUILD_EXCLUSIVE_ARCH ]] || fail "dkms.conf leaves out $machine"
    done
    [ "$AUTOINSTALL" = yes ] || fail "new kernels would get no module"
  )
  # The sources are all there: what the checkout's Kbuild would compile, and no more of the tree than it needs.
  local file
  while IFS= read -r file; do
    cmp -s "$top/$file" "$source/$file" || fail "$file is missing or not the same"
  done < <(cd "$top" && find quendrel/2.6 platform/linux platform/kernel.h -name '*.cpp' -o -name '*.[ch]' -o -name Kbuild -o -name Makefile -o -name kernels -o -name supported -o -path platform/kernel.h)
  [ ! -e "$source/platform/hosted" ] || fail "the hosted kernel is of no use to a module"
}

dkms_package_is_the_same_wherever_it_is_built() {
  export SOURCE_DATE_EPOCH=1700000000
  mkdir -p "$work/elsewhere/a" "$work/one" "$work/two"
  cp -r "$top"/{CMakeLists.txt,quendrel,platform,packaging,docs} "$work/elsewhere/a/"
  find "$work/elsewhere" -exec touch -d '2001-01-01' {} +
  "$top/packaging/build" --only dkms --output "$work/one" >/dev/null
  (umask 077 && LC_ALL=C TZ=Asia/Tokyo "$work/elsewhere/a/packaging/build" --only dkms --output "$work/two" >/dev/null)
  cmp "$work/one/quendrel-dkms_${version}_all.deb" "$work/two/quendrel-dkms_${version}_all.deb"
}

# program_is_sound PATH PACKAGE-FILE: the one program of the package that is unpacked.
program_is_sound() {
  local file=$work/tree/$1
  [ "$(find "$work"/tree/usr/*bin -type f)" = "$file" ] || fail "the programs are $(find "$work"/tree/usr/*bin -type f)"
  [ "$("$file" --version)" = "${1##*/} $version" ] || fail "$1 says $("$file" --version)"
  ! readelf -S "$file" | grep -q ' \.debug_' || fail "$1 has debug sections"
  ! readelf -d "$file" | grep -qE 'RPATH|RUNPATH' || fail "$1 looks for libraries in a place of its own"
  dpkg-deb -f "$2" Depends | grep -qE '(^|, )libc6 ' || fail "the libraries are not among the dependencies"
}

# Sets $deb.
tools_package() {
  "$top/packaging/build" --only tools --output "$work" --build-dir "$place/build" >"$work/built"
  deb=$(cat "$work/built")
  [ "$deb" = "$work/quendrel_${version}_$(dpkg --print-architecture).deb" ] || fail "packaging/build printed $deb"
  unpack "$deb"
}

tools_package_is_sound() {
  local page
  tools_package
  local tree=$work/tree
  program_is_sound usr/bin/qbackup "$deb"
  for page in "$top"/docs/qbackup*.[15]; do
    [ -e "$tree/usr/share/man/man${page##*.}/${page##*/}.gz" ] || fail "the manual page ${page##*/} is missing"
  done
  [ ! -e "$tree/usr/sbin" ] || fail "the daemon has a package of its own"
  # The example can be taken as it is, and all that is commented out in it too, which is all that can be said.
  local example=$tree/usr/share/doc/quendrel/examples/qbackup.toml key known
  [ "$("$tree/usr/bin/qbackup" run --list --config "$example")" = \
    "nightly: /dev/sda1 /dev/vg0/home to /mnt/backups/disks, keeping daily 14, weekly 8, monthly 12" ] || fail "the example cannot be taken"
  sed -E 's/^#([a-z-]+ = )/\1/' "$example" >"$work/all.toml"
  "$tree/usr/bin/qbackup" run --list --config "$work/all.toml" >/dev/null || fail "what is commented out in the example cannot be taken"
  { cat "$work/all.toml" && echo 'nonsense = 1'; } >"$work/more.toml"
  known=$("$tree/usr/bin/qbackup" run --list --config "$work/more.toml" 2>&1 | sed -nE 's/.*known are (.*)/\1/p') || true
  [ -n "$known" ] || fail "a key that is not known is taken"
  for key in ${known//,/}; do
    [ "$(grep -cE "^$key = " "$work/all.toml")" = 1 ] || fail "the example says nothing of $key"
    man -l "$top/docs/qbackup.toml.5" | grep -qE "^ +$key = " || fail "the manual page says nothing of $key"
  done
  ! grep -qE 'systemctl.* (re)?start|systemctl.* enable|invoke-rc' "$work"/control/p* || fail "a maintainer script starts something"
  # Completion offers every option that the program has, and none that it has not.
  local command offered known
  # shellcheck disable=SC1091
  . "$tree/usr/share/bash-completion/completions/qbackup"
  for command in $("$tree/usr/bin/qbackup" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p'); do
    COMP_WORDS=(qbackup "$command" --) COMP_CWORD=2 COMPREPLY=()
    _qbackup
    offered=$(printf '%s\n' "${COMPREPLY[@]}" | grep -vxE -- '--(control|json|quiet|help)' | sort) || true # a command may have none
    known=$("$tree/usr/bin/qbackup" "$command" --help | grep -oE '^ +(-[a-z], ?)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | grep -vxE -- '--help' | sort) || true
    [ "$offered" = "$known" ] || fail "$command has the options $known and completion offers $offered"
  done
  [ "$command" = completion ] || fail "the list of subcommands was not read"
  [ -s "$tree/usr/share/zsh/vendor-completions/_qbackup" ] || fail "zsh has no completion"
  [ -s "$tree/usr/share/fish/vendor_completions.d/qbackup.fish" ] || fail "fish has no completion"
}

daemon_package() {
  "$top/packaging/build" --only daemon --output "$work" --build-dir "$place/build" >"$work/built"
  [ "$(cat "$work/built")" = "$work/quendreld_${version}_$(dpkg --print-architecture).deb" ] ||
    fail "packaging/build printed $(cat "$work/built")"
  unpack "$(cat "$work/built")"
}

daemon_package_is_sound() {
  daemon_package
  local tree=$work/tree unit=$work/tree/lib/systemd/system/quendreld@.service command key
  program_is_sound usr/sbin/quendreld "$(cat "$work/built")"
  [ -e "$tree/usr/share/man/man8/quendreld.8.gz" ] || fail "the manual page is missing"
  [ -d "$tree/etc/quendrel/quendreld" ] || fail "there is no place for configurations"
  # The unit's command is one that the daemon understands, for a configuration that it can serve.
  truncate -s 1M "$work/one.img" "$work/two.img"
  sed -E "s|^#disk = /srv.*|disk = $work/one.img|; s|^#disk = /dev.*|disk = $work/two.img|; s/^#group = .*/group = 0/; s/^#([a-z-]+ = )/\\1/" \
    "$tree/usr/share/doc/quendreld/examples/quendreld.conf" >"$work/test.conf"
  command=$(sed -n 's/^ExecStart=//p' "$unit" | sed "s|/etc/quendrel/quendreld/%i|$work/test|; s|/run/quendrel/%i|$work/run|; s/ --foreground//; s|^|$tree|")
  $command >"$work/log" 2>&1 || fail "'$command' ends with: $(cat "$work/log")"
  command=$(sed -n 's/^ExecStop=-//p' "$unit" | sed "s|/run/quendrel/%i|$work/run|; s|^|$tree|")
  grep -q '^sdb ' "$work/log" || fail "it does not serve both disks of the example: $(cat "$work/log")"
  $command || fail "'$command' fails"
  # The example has every option but those that the unit gives.
  for key in $("$tree/usr/sbin/quendreld" --help | grep -oE '^ +--[a-z-]+' | grep -vxE ' +--(config|run-dir|foreground|version)' | tr -d ' -' | sort); do
    [ "$(grep -cE "^$key " <(tr -d '-' <"$work/test.conf"))" = 1 ] || fail "the example says nothing of $key, or it is not off"
  done
  # Nothing of it starts by itself, and a daemon that serves is left alone.
  ! grep -qE 'systemctl.* (re)?start|systemctl.* (stop|enable)|invoke-rc' <(grep -vE '^ *(#|echo)' "$work"/control/p*) ||
    fail "a maintainer script starts or stops something"
}

# units_are_sound MOST UNIT...: reads units of the package that is unpacked as systemd does. MOST is what systemd-analyze may make
# of their services' exposure, in tenths of 0 (best) to 10.
units_are_sound() {
  command -v systemd-analyze >/dev/null || { echo "systemd-analyze is missing" && exit 77; }
  local most=$1 root=$work/root units=$work/root/lib/systemd/system unit exposure
  shift
  # Names of other units and of the manual page are looked up in a root that has them.
  mkdir -p "$root/usr" && cp -a "$work/tree/." "$root/"
  for unit; do
    sed -i "s|^\(Exec[A-Za-z]*=-*\)/usr|\1$root/usr|; /^Documentation=/d" "$units/$unit"
    systemd-analyze verify --man=no "$units/$unit" >"$work/log" 2>&1 || fail "systemd-analyze: $(cat "$work/log")"
    ! grep -F "${unit%@*}" "$work/log" || fail "the lines above are systemd's"
    [[ $unit = *.service ]] || continue
    exposure=$(systemd-analyze security --offline=true --no-pager "$work/tree/lib/systemd/system/$unit" |
      sed -nE 's/.*Overall exposure level.*: ([0-9]+)\.([0-9]+) .*/\1\2/p')
    [ -n "$exposure" ] && [ "$((10#$exposure))" -le "$most" ] || fail "$unit is exposed by ${exposure:-?}/10, more than $most"
  done
}

unit_of_the_daemon_is_sound() {
  daemon_package
  units_are_sound 40 quendreld@.service
}

# The units that run a job once a day: their command is one that qbackup understands.
units_of_a_job_are_sound() {
  tools_package
  local unit=$work/tree/lib/systemd/system/qbackup@.service command
  units_are_sound 50 qbackup@.service qbackup@.timer
  # A service that fails is a failure, but for the exit status of a warning.
  expect "$unit" '^SuccessExitStatus=6$'
  expect "${unit%service}timer" '^OnCalendar=daily$'
  printf '[job.nightly]\ndevices = ["sda1"]\ntarget = "/nonexistent"\n' >"$work/qbackup.toml"
  command=$(sed -n 's/^ExecStart=//p' "$unit" | sed "s|%i|nightly|; s|^|$work/tree|")
  QBACKUP_CONFIG=$work/qbackup.toml QUENDREL_CONTROL=/nonexistent/control $command >"$work/log" 2>&1 && fail "it runs without a driver"
  expect "$work/log" '^qbackup: there is no control device at /nonexistent/control'
}

# What is in a root file system with both library packages is all that a program needs to be made, and to run.
library_packages_are_sound() {
  local arch major=${version%%.*} root=$work/root file header
  arch=$(dpkg --print-architecture)
  "$top/packaging/build" --only dev --output "$work" --build-dir "$place/build" >"$work/built"
  [ "$(cat "$work/built")" = "$work/libquendrel${major}_${version}_$arch.deb
$work/libquendrel-dev_${version}_$arch.deb" ] || fail "packaging/build printed $(cat "$work/built")"

  unpack "$work/libquendrel${major}_${version}_$arch.deb"
  expect "$work/control/shlibs" "^libquendrel $major libquendrel$major \\(>= $version\\)\$"
  expect "$work/control/triggers" '^activate-noawait ldconfig$'
  dpkg-deb -f "$work/libquendrel${major}_${version}_$arch.deb" Depends | grep -qE '(^|, )libstdc\+\+6 ' || fail "libstdc++ is not needed"
  file=$(find "$work/tree/usr/lib" -name "libquendrel.so.$version" -type f)
  [ "$(readlink "${file%."${version#*.}"}")" = "libquendrel.so.$version" ] || fail "libquendrel.so.$major is missing"
  ! readelf -SW "$file" | grep -qE ' \.(debug_|symtab)' || fail "$file is not stripped"
  [ "$(find "$work/tree/usr" -name '*.so*' | wc -l)" = 2 ] || fail "the library has other names, which programs are not run with"
  cp -a "$work/tree" "$root"

  unpack "$work/libquendrel-dev_${version}_$arch.deb"
  [ "$(dpkg-deb -f "$work/libquendrel-dev_${version}_$arch.deb" Depends)" = "libquendrel$major (= $version)" ] ||
    fail "the library that the link points to is not among the dependencies"
  cp -a "$work/tree/." "$root"
  for header in quendrel.h quendrel/control_device.h; do
    [ -e "$root/usr/include/$header" ] || fail "<$header> is missing"
  done
  # The page of the control device stands beside the module's package's own copy.
  for file in 3:libquendrel 4:quendrel 7:quendrel-socket; do
    man -M "$root/usr/share/man" -w "${file%:*}" "${file#*:}" >/dev/null || fail "man does not find ${file#*:}(${file%:*})"
  done
  dkms_package
  for file in $(cd "$work/tree" && find . -type f); do
    [ ! -e "$root/$file" ] || fail "$file is in two packages"
  done

  mkdir "$work/program"
  cd "$work/program"
  export PKG_CONFIG_SYSROOT_DIR=$root
  PKG_CONFIG_PATH=$(dirname "$(find "$root" -name quendrel.pc)")
  export PKG_CONFIG_PATH
  gcc -I"$root/usr/include" "$root/usr/share/doc/libquendrel-dev/examples/backup.c" -o backup || fail "the example in C does not build"
  local status=0
  ./backup 2>usage || status=$?
  [ $status = 2 ] || fail "the example in C ends with $status"
  echo '#include <quendrel/error.h>
#include <iostream>
int main() { std::cout << quendrel::codeText("SnapShot", 9) << "\n"; }' >program.cpp
  # shellcheck disable=SC2046
  g++ -std=c++20 -I"$root/usr/include" program.cpp $(pkg-config --libs quendrel) -L"${PKG_CONFIG_PATH%/pkgconfig}" -o program ||
    fail "no program can be linked"
  LD_LIBRARY_PATH=${PKG_CONFIG_PATH%/pkgconfig} ./program | grep -q '^another backup is running' || fail "the library does not work"
}

# Sets $tree_of_kernel.
kernel_tree() {
  local fetched=$top/build/vm/cache/amd64/kdir
  tree_of_kernel=${QUENDREL_KDIR:-}
  [ -n "$tree_of_kernel" ] || [ ! -s "$fetched" ] || tree_of_kernel=$(cat "$fetched")
  [ -n "$tree_of_kernel" ] || tree_of_kernel=/lib/modules/$(uname -r)/build
  if [ ! -e "$tree_of_kernel/Makefile" ]; then
    echo "no kernel build tree at $tree_of_kernel: run tests/vm/fetch, or set QUENDREL_KDIR"
    exit 77
  fi
}

module_builds_from_the_dkms_package() {
  local kdir
  kernel_tree
  kdir=$tree_of_kernel
  dkms_package
  local source=$work/tree/usr/src/quendrel-$version
  if ! "$source/platform/linux/supported" "$kdir"; then
    exit 77
  fi
  chmod -R a-w "$source/quendrel" "$source/platform"
  (cd "$source" && ./dkms-make "$kdir") >"$work/log" 2>&1 || { tail -30 "$work/log" >&2 && fail "it does not build with $kdir"; }
  chmod -R u+w "$source"
  local info
  info=$(PATH=$PATH:/sbin:/usr/sbin modinfo "$source/ko/quendrel.ko")
  grep -q "^version: *$version\$" <<<"$info" || fail "the module is not of version $version"
  grep -q '^parm: *exclusive:' <<<"$info" || fail "the module has no parameter exclusive"
  ! grep -q '^description: *not the driver' <<<"$info" || fail "it is a stand-in"
}

# stand_in RELEASE SETTING REASON: for a kernel of this release, with a line more in its configuration, a module comes out
# that can be installed, and that says why it is not the driver.
stand_in() {
  local kdir=$work/kdir source=$work/tree/usr/src/quendrel-$version info
  rm -rf "$kdir" "$source/ko"
  mkdir "$kdir"
  cp -rs "$tree_of_kernel"/. "$kdir"
  rm "$kdir/include/config/kernel.release" "$kdir/.config"
  echo "$1" >"$kdir/include/config/kernel.release"
  { cat "$tree_of_kernel/.config" && echo "$2"; } >"$kdir/.config"
  (cd "$source" && ./dkms-make "$kdir") >"$work/log" 2>&1 || { tail -30 "$work/log" >&2 && fail "there is no stand-in"; }
  expect "$work/log" "^$3"
  info=$(PATH=$PATH:/sbin:/usr/sbin modinfo "$source/ko/quendrel.ko")
  grep -q "^description: *not the driver: $3" <<<"$info" || fail "the stand-in does not say that it is one"
  grep -q "^version: *$version\$" <<<"$info" || fail "the stand-in is not of version $version"
  grep -q '^parm: *exclusive:' <<<"$info" || fail "the stand-in has no parameter exclusive"
  # By hand it is refused.
  ! make -C "$source/platform/linux" KDIR="$kdir" BUILD="$work/by-hand" >"$work/log" 2>&1 || fail "the driver builds for any kernel"
  expect "$work/log" "^$3"
}

a_stand_in_builds_for_a_kernel_that_the_driver_is_not_for() {
  kernel_tree
  dkms_package
  stand_in 6.12.3-other '' 'quendrel is not tested on Linux 6.12.3-other, only on 6.1, 2.6.29: '
  stand_in 6.1.0-1-rt CONFIG_PREEMPT_RT=y 'quendrel does not work on Linux 6.1.0-1-rt: it is a PREEMPT_RT kernel'
}

"$test"
