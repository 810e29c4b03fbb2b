# shellcheck shell=bash
# SPDX-License-Identifier: GPL-2.0-only
# For the scripts that others source it from: a long command whose output goes to a log is not silent.

# with_progress LOG WHAT COMMAND [ARGUMENT...]
# Appends all that COMMAND prints to LOG, and says on standard output every PROGRESS_SECONDS (default 8) that WHAT goes on,
# for how long, and the newest line of LOG, or what the function named by PROGRESS_LINE finds there. The status is that of
# COMMAND. This may be a function too; `set -e` does not hold in it. The first report comes after that time: say something
# before, or make several short commands one function.
with_progress() {
  local log=$1 what=$2 watcher status=0
  shift 2
  # The watcher reads a pipe that only this shell writes to: it ends with it, however that ends.
  exec 8> >(watch_log "$log" "$what")
  watcher=$!
  "$@" >>"$log" 2>&1 8>&- || status=$?
  exec 8>&-
  wait "$watcher" || true
  return "$status"
}

# Until the end of standard input.
watch_log() {
  local log=$1 what=$2 begin=$SECONDS line
  until read -r -t "${PROGRESS_SECONDS:-8}" || [ $? -le 128 ]; do
    line=$("${PROGRESS_LINE:-last_line}" "$log" | cut -c1-100)
    printf '   %s, %d s%s\n' "$what" $((SECONDS - begin)) "${line:+: $line}"
  done
}

# The newest line of a log that is not empty; what programs print over and over on one line counts as many.
last_line() {
  [ ! -e "$1" ] || tail -c 4000 "$1" | tr '\r' '\n' | grep -a '[^[:space:]]' | tail -n 1 || true
}
