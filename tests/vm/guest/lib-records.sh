# SPDX-License-Identifier: GPL-2.0-only
# A guest's writer on its own root disk, which the host's daemon serves: it appends numbered lines to /records and tells in
# /run which it has begun and which it knows to be durable. The host finds them in what it restores.

number_in() { # FILE
  local number=
  until read -r number <"$1"; do :; done # it is being written
  echo "$number"
}
# Few programs, which an emulated processor is long about.
write_records() {
  local n=0 text
  text=$(head -c 30000 /bin/bash | base64)
  mkdir /churn /churn/{0..6}
  while [ ! -e /run/stop-writers ]; do
    n=$((n + 1))
    echo $n >/run/begun
    printf '%08d\n' $n >>/records
    sync /records
    echo $n >/run/synced
    # The file system has more to do than that.
    printf '%s' "${text:n * 37 % 30000}" >/churn/new
    mv /churn/new "/churn/$((n % 7))/$((n % 31))"
    [ $((n % 9)) != 0 ] || rm -f "/churn/$((n % 7))"/*
  done
}
goes_on() { # RECORDS
  local wanted=$(($(number_in /run/synced) + $1)) try
  for try in $(seq 400); do
    [ "$(number_in /run/synced)" -lt $wanted ] || return 0
    kill -0 "$RECORDS_WRITER" 2>/dev/null || fail "the writer has ended"
    sleep 0.1
  done
  fail "no $1 records in 40 s"
}
back_up() { # MODE [HOW]: what the host is asked
  host "${2:-backed-up}" "$(number_in /run/synced)"
  local mode count last
  read -r mode count JOURNAL <<<"$ANSWER"
  [ "$mode" = "$1" ] || fail "the backup is $ANSWER, not $1"
  last=$(number_in /run/begun)
  [ "$count" -le "$last" ] || fail "the backup has record $count, and $last is the last"
}
start_records() {
  : >/records
  echo 0 >/run/synced
  write_records 3>&- &
  RECORDS_WRITER=$!
}
stop_records() {
  touch /run/stop-writers
  wait "$RECORDS_WRITER" || fail "the writer failed"
  host durable-at-the-end "$(number_in /run/synced)"
}
