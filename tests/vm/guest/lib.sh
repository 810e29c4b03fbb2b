# SPDX-License-Identifier: GPL-2.0-only
# What every test has at hand. A test is a bash script that runs with errors ending it; see ../README.md.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DM_DISABLE_UDEV=1
KIT=/run/kit
STORE=/run/store
. $KIT/settings
[ ! -f /run/disks ] || . /run/disks

fail() {
  echo "FAIL: $*"
  echo "$*" >/run/reason
  exit 1
}
skip() {
  echo "$*" >/run/reason
  exit 77
}
# expect STATUS COMMAND...: the command's exit status must be that; its output goes to $OUTPUT and the log.
expect() {
  local wanted=$1 status=0
  shift
  OUTPUT=$("$@" 2>&1) || status=$?
  echo "$OUTPUT"
  [ $status = "$wanted" ] || fail "'$*' ended with $status, not $wanted: $(tail -1 <<<"$OUTPUT")"
}
expect_text() { # REGEX, of the last expect
  grep -qiE "$1" <<<"$OUTPUT" || fail "the message does not say '$1': $(tail -1 <<<"$OUTPUT")"
}

# Asks the host; what it answers goes to $ANSWER.
host() {
  local word
  printf 'host %s\n' "$*" >&3
  read -r -u 3 word ANSWER
  [ "$word" = ok ] || fail "host $1: $ANSWER"
  echo "host $1: $ANSWER"
}

for part in disks stacks scsi needs driver proof slabs writers records database postgresql mariadb chain clean; do
  . $KIT/guest/lib-$part.sh
done
