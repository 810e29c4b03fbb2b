#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# One test of ./check and scripts/.
#
# usage: scripts.sh TEST
set -euo pipefail

test=$1
top=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset FUZZ_SECONDS CROWD_SECONDS VM_TIMEOUT CHECK_JOBS PROGRESS_SECONDS PROGRESS_LINE

fail() {
  echo "$*" >&2
  exit 1
}

# ---- the progress of a command -------------------------------------------------------------------------------------

# with_progress in a script of its own, as its users have it.
progress() { bash -c 'set -euo pipefail; . "$0/scripts/progress.sh"; with_progress "$@"' "$top" "$@"; }

# longest_gap: of standard input, in milliseconds; from the start to the first line and from the last one to the end too.
longest_gap() {
  local last=${EPOCHREALTIME/[.,]/} now longest=0 line more=1
  while [ $more = 1 ]; do
    IFS= read -r line || more=0
    now=${EPOCHREALTIME/[.,]/}
    [ $((now - last)) -le $longest ] || longest=$((now - last))
    last=$now
    [ -z "$line" ] || echo "$line" >>"$work/lines"
  done
  echo $((longest / 1000))
}

a_silent_command_is_reported_every_ten_seconds() {
  local gap
  gap=$(progress "$work/log" "a long rest" sleep 21 | longest_gap)
  [ "$gap" -le 10000 ] || fail "nothing was printed for $gap ms"
  grep -qE '^ +a long rest, [0-9]+ s$' "$work/lines" || fail "it is not said what goes on: $(cat "$work/lines")"
}

a_talkative_command_is_reported_no_more_often() {
  local gap begin=$SECONDS
  gap=$(progress "$work/log" talk bash -c 'for ((i = 0; i < 190; ++i)); do echo "line $i"; echo "error $i" >&2; sleep 0.1; done' | longest_gap)
  [ "$gap" -le 10000 ] || fail "nothing was printed for $gap ms"
  [ "$(wc -l <"$work/lines")" -le $(((SECONDS - begin) / 8)) ] || fail "there are more lines than one in eight seconds: $(cat "$work/lines")"
  grep -qE '^ +talk, [0-9]+ s: (line|error) [0-9]+$' "$work/lines" || fail "the newest line is not told: $(cat "$work/lines")"
  [ "$(wc -l <"$work/log")" = 380 ] || fail "the log has $(wc -l <"$work/log") of 380 lines"
}

the_status_of_a_reported_command_passes_through() {
  local status wanted
  for wanted in 0 7 143; do
    status=0
    progress "$work/log" it bash -c "[ $wanted != 143 ] || kill -TERM \$\$; exit $wanted" >"$work/out" || status=$?
    [ $status = $wanted ] || fail "$wanted became $status"
    [ ! -s "$work/out" ] || fail "a short command is reported: $(cat "$work/out")"
  done
}

reports_end_with_the_script_that_makes_them() {
  local pid
  export PROGRESS_SECONDS=1
  bash -c '. "$0/scripts/progress.sh"; with_progress "$1" it sleep 4' "$top" "$work/log" >"$work/out" &
  pid=$!
  for ((i = 0; i < 300; ++i)); do
    [ ! -s "$work/out" ] || break
    sleep 0.1
  done
  [ -s "$work/out" ] || fail "nothing is reported"
  kill -KILL $pid
  wait $pid 2>/dev/null || true
  sleep 0.5
  local lines
  lines=$(wc -l <"$work/out")
  sleep 2.5
  [ "$(wc -l <"$work/out")" = "$lines" ] || fail "it is reported on after the script's end"
}

# ---- ./check, with everything that it starts replaced -----------------------------------------------------------------

stub() {
  mkdir -p "$(dirname "$1")"
  printf '#!/usr/bin/env bash\n%s\n' "$2" >"$1"
  chmod +x "$1"
}

# A tree of its own in which what ./check starts notes its arguments in $work/calls.
tree() {
  mkdir -p "$work/tree/scripts"
  cp "$top/check" "$work/tree/"
  cp "$top/scripts/progress.sh" "$work/tree/scripts/"
  export calls=$work/calls
  stub "$work/tree/scripts/setup" 'echo setup >>"$calls"'
  stub "$work/fuzzer" 'echo "fuzzer $1" >>"$calls"; echo "stat::number_of_executed_units: 5"'
  stub "$work/tree/scripts/build" 'echo "build $*" >>"$calls"
[ "$1" != "${broken:-}" ] || exit 1
mkdir -p "build/$1"
[ "$1" != fuzz ] || { mkdir -p build/fuzz/tests/fuzz; cp '"$work"'/fuzzer build/fuzz/tests/fuzz/control_fuzz; }'
  stub "$work/bin/ctest" 'echo "ctest ${2#build/} ${*:6}" >>"$calls"
echo "  1/10 Test  #1: one ....   Passed    0.01 sec"
echo "  2/10 Test  #2: two ....***Skipped   0.01 sec"
[ "$2" != "build/${bad:-}" ] || { echo "90% tests passed, 1 tests failed out of 10"; exit 8; }
echo "100% tests passed, 0 tests failed out of 10"'
  stub "$work/tree/tests/vm/run" 'if [ "$1" = --list ]; then
  printf "%-32s it does\n" boots control-fuzz control hundred-cycles
  exit
fi
echo "vm $2 $4 $8${9:+ $9}" >>"$calls"
echo "   ready to boot after 0 s"
echo "PASS boots (1.0 s)"
echo "1 passed, 0 failed, 0 skipped"'
}

# run_check WORD...: its output in $work/out; prints its exit status.
run_check() {
  local status=0
  PATH=$work/bin:$PATH "$work/tree/check" "$@" >"$work/out" 2>"$work/err" || status=$?
  echo $status
}

# expect_check STATUS LAST-LINE CALL...
expect_check() {
  local status=$1 counts=$2
  shift 2
  [ "$status" = "$wanted_status" ] || fail "it ended with $status: $(cat "$work/out" "$work/err")"
  [ "$(tail -n 1 "$work/out")" = "$counts" ] || fail "its last line is: $(tail -n 1 "$work/out")"
  diff <(printf '%s\n' setup "$@") "$calls" >&2 || fail "it did something else (above: < was expected)"
}
wanted_status=0

check_refuses_what_it_does_not_know() {
  local words
  tree
  for words in --bogus relase 'release --all' 'all release' 'release ci' 'all ci'; do
    # shellcheck disable=SC2086
    [ "$(run_check $words)" = 2 ] || fail "check $words is not refused"
    grep -q '^check: .*--help' "$work/err" || fail "check $words says: $(cat "$work/err")"
  done
  run_check --bogus >/dev/null
  grep -qF 'check: unknown option --bogus (' "$work/err" || fail "it says: $(cat "$work/err")"
  [ "$(run_check --help)" = 0 ] || fail "check --help fails"
  grep -qE '^usage: \./check ' "$work/out" || fail "there is no usage in: $(cat "$work/out")"
  [ ! -e "$calls" ] || fail "it does something all the same: $(cat "$calls")"
}

check_without_arguments_runs_release_alone() {
  tree
  expect_check "$(run_check)" "9 passed, 0 failed, 1 skipped" "build release" "ctest release -LE ^(long|hours)\$"
  grep -q '\./check all' "$work/out" || fail "it does not say what more there is"
}

check_all_runs_every_variant() {
  tree
  expect_check "$(run_check all)" "39 passed, 0 failed, 4 skipped" "build release" "ctest release -LE ^(hours)\$" "build asan" "ctest asan -LE ^(hours)\$" \
    "build tsan" "ctest tsan -LE ^(hours)\$" "build m32" "ctest m32 -LE ^(hours)\$" "build fuzz fuzzers" "fuzzer -max_total_time=60" "vm amd64 * 3" "vm i386 * 3"
}

check_builds_a_kernel_with_checkers_where_asked() {
  tree
  expect_check "$(run_check vm-debug)" "1 passed, 0 failed, 0 skipped" "vm amd64 boots,control 9 --debug-kernel"
}

check_tries_debians_other_kernels_where_asked() {
  tree
  expect_check "$(run_check vm-kernels)" "1 passed, 0 failed, 0 skipped" "vm * $work/tree/build/vm-kernels "
}

check_lets_every_operation_fail_where_asked() {
  tree
  expect_check "$(run_check faults)" "9 passed, 0 failed, 1 skipped" "build release" "ctest release -L ^hours\$"
}

check_ci_leaves_out_the_longest() {
  tree
  expect_check "$(run_check ci)" "39 passed, 0 failed, 4 skipped" "build release" "ctest release -LE ^(long|hours)\$" "build asan" "ctest asan -LE ^(long|hours)\$" \
    "build tsan" "ctest tsan -LE ^(long|hours|e2e)\$" "build m32" "ctest m32 -LE ^(long|hours)\$" "build fuzz fuzzers" "fuzzer -max_total_time=20" \
    "vm amd64 boots,control 3" "vm i386 boots,control 3"
}

check_counts_what_failed() {
  tree
  wanted_status=1
  bad=asan broken=tsan
  export bad broken
  expect_check "$(run_check asan tsan release asan)" "17 passed, 2 failed, 2 skipped" "build asan" "ctest asan -LE ^(long|hours)\$" "build tsan" \
    "build release" "ctest release -LE ^(long|hours)\$"
}

# ---- scripts/build ---------------------------------------------------------------------------------------------------

a_failed_build_shows_its_errors() {
  mkdir -p "$work/tree"
  cp -r "$top/scripts" "$work/tree/"
  printf 'cmake_minimum_required(VERSION 3.25)\nproject(p LANGUAGES CXX)\nadd_library(l one.cpp)\n' >"$work/tree/CMakeLists.txt"
  cp "$top/CMakePresets.json" "$work/tree/"
  echo 'int one() { return nothing; }' >"$work/tree/one.cpp"
  if "$work/tree/scripts/build" release >"$work/out" 2>"$work/err"; then fail "it is no failure"; fi
  grep -q "error: .nothing. was not declared" "$work/err" || fail "it says: $(cat "$work/err")"
  echo 'int one() { return 1; }' >"$work/tree/one.cpp"
  "$work/tree/scripts/build" --dir "$work/elsewhere" release l >"$work/out" || fail "it does not build: $(cat "$work/out")"
  [ -e "$work/elsewhere/libl.a" ] || fail "it builds elsewhere"
}

"$test"
