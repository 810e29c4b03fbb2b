#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# One test of what `cmake --install` leaves for other people's programs: they are built here in a folder of their own,
# from the installed files alone.
#
# usage: installed.sh TEST BUILD-DIRECTORY      of a build whose programs and libraries are built
# Exit status: 0 passed, 1 failed.
set -euo pipefail

test=$1
build=$(cd "$2" && pwd)
version=$(sed -nE 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
  echo "$*" >&2
  exit 1
}

cmake --install "$build" --prefix "$prefix" >"$work/log" 2>&1 || fail "it cannot be installed: $(tail -5 "$work/log")"
lib=$(dirname "$(find "$prefix" -name libquendrel.a)")
# Nothing of this machine's own but its compilers and their libraries.
export PKG_CONFIG_PATH=$lib/pkgconfig
unset CPATH C_INCLUDE_PATH CPLUS_INCLUDE_PATH LIBRARY_PATH LD_LIBRARY_PATH
mkdir "$work/program"
cd "$work/program"

# A program that needs most kinds of names of the library: constructors, an exception that it catches, a virtual call,
# inline functions. It ends well when the error says what it should.
cat >program.cpp <<'END'
#include <quendrel/control_device.h>
#include <cerrno>
#include <iostream>

struct Deaf : quendrel::Transport {
    int command(std::uint32_t, std::uint32_t) override { return QUENDREL_BUSY; }
    Mapping map(std::size_t) override { return {QUENDREL_REFUSED, nullptr}; }
    void unmap(std::byte*, std::size_t) noexcept override {}
};

int main()
{
    quendrel::Bitmap map{1000};
    map.set(17);
    if (map.nextRun(0, 8) != quendrel::Bitmap::Run{17, 1} || map.address() == 0)
        return 1;
    quendrel::ControlDevice device{std::make_unique<Deaf>(), "deaf"};
    try {
        device.start({8, 1}, 1000, 10);
        return 1;
    } catch (const quendrel::Error& error) {
        if (error.code() != QUENDREL_BUSY || error.device() != "8:1")
            return 1;
    }
    try {
        quendrel::ControlDevice{"/nonexistent/control.sock"};
    } catch (const quendrel::Error& error) {
        std::cout << error.code() + ENOENT << "\n";
        return 0;
    }
    return 1;
}
END

# runs PROGRAM shared|static: it runs, and has its libquendrel from where it should.
runs() {
  local needed
  needed=$(readelf -d "$1" | sed -nE 's/.*NEEDED.*\[(libquendrel[^]]*)\]/\1/p')
  if [ "$2" = shared ]; then
    [ "$needed" = "libquendrel.so.${version%%.*}" ] || fail "$1 needs '$needed'"
  else
    [ -z "$needed" ] || fail "$1 needs $needed"
  fi
  [ "$(LD_LIBRARY_PATH=$lib "$1")" = 0 ] || fail "$1 does not work"
}

each_header_stands_alone() {
  local header standard
  for standard in gnu89 c99 c11 c17; do
    gcc -std=$standard -Wall -Wextra -pedantic -Werror -fsyntax-only -I"$prefix/include" -x c - <<<'#include <quendrel.h>'
  done
  for standard in c++11 c++17 c++20; do
    g++ -std=$standard -Wall -Wextra -pedantic -Werror -fsyntax-only -I"$prefix/include" -x c++ - <<<'#include <quendrel.h>'
  done
  gcc -m32 -Werror -fsyntax-only -I"$prefix/include" -x c - <<<'#include <quendrel.h>'
  while IFS= read -r header; do
    g++ -std=c++20 -Wall -Wextra -pedantic -Werror -fsyntax-only -I"$prefix/include" -x c++ - <<<"#include <quendrel/$header>" ||
      fail "<quendrel/$header> cannot be included alone"
  done < <(cd "$prefix/include/quendrel" && ls)
  [ -e "$prefix/include/quendrel/control_device.h" ] || fail "the library's header is not there"
}

pkg_config_links_the_shared_library() {
  [ "$(pkg-config --modversion quendrel)" = "$version" ] || fail "pkg-config says $(pkg-config --modversion quendrel)"
  # shellcheck disable=SC2046
  g++ -std=c++20 -Wall -Wextra -Werror $(pkg-config --cflags quendrel) program.cpp -o program $(pkg-config --libs quendrel)
  runs ./program shared
}

pkg_config_links_the_static_library() {
  # shellcheck disable=SC2046
  g++ -std=c++20 -Wall -Wextra -Werror -static $(pkg-config --cflags quendrel) program.cpp -o program \
    $(pkg-config --static --libs quendrel)
  runs ./program static
}

cmake_finds_both_libraries() {
  cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.16)
project(stranger CXX)
find_package(quendrel 3.1 REQUIRED CONFIG)
add_executable(with_shared program.cpp)
target_link_libraries(with_shared PRIVATE quendrel::quendrel)
add_executable(with_static program.cpp)
target_link_libraries(with_static PRIVATE quendrel::static)
END
  # Moved: the files must not depend on where they were installed.
  mv "$prefix" "$work/moved"
  lib=$work/moved${lib#"$prefix"}
  { cmake -S . -B out -DCMAKE_PREFIX_PATH="$work/moved" && cmake --build out; } >log 2>&1 || fail "$(tail -20 log)"
  runs out/with_shared shared
  runs out/with_static static
}

shared_library_shows_its_own_names_only() {
  local so=$lib/libquendrel.so shown
  [ "$(readelf -d "$so" | sed -nE 's/.*SONAME.*\[(.*)\]/\1/p')" = "libquendrel.so.${version%%.*}" ] || fail "its name is wrong"
  shown=$(nm -DC --defined-only "$so" | cut -d' ' -f3-)
  grep -q '^quendrel::ControlDevice::snapshot(' <<<"$shown" || fail "its own names are not shown"
  ! grep -vE '^((typeinfo|typeinfo name|vtable) for )?quendrel::' <<<"$shown" || fail "these names are none of its own"
}

"$test"
