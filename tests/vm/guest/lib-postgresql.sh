# SPDX-License-Identifier: GPL-2.0-only
# PostgreSQL under pgbench on the disk that is backed up, and servers that start on what was restored.

PG=/usr/lib/postgresql/15/bin
as_postgres() { setpriv --reuid postgres --regid postgres --clear-groups env HOME=/run/pg "$@" 3>&-; }
sql() { as_postgres $PG/psql -h /run/pg -d postgres -p "$1" -qAtX -v ON_ERROR_STOP=1 -c "$2"; }
start_server() { # DIRECTORY PORT
  as_postgres $PG/pg_ctl -D "$1" -o "-p $2" -l "/run/pg/log-$2" -w -t 120 start || { cat "/run/pg/log-$2" && fail "the server does not start on $1"; }
}
stop_server() { as_postgres $PG/pg_ctl -D "$1" -m fast -w -t 120 stop || fail "the server on $1 does not stop"; }
# Checks what was restored: COMMITTED records at least, all that come before the last one, and pgbench's sums.
recovered() { # BACKUP REGION COMMITTED BEGUN
  local records sums
  mount_restored "$1" "$2"
  rm /mnt/restored/data/postmaster.pid
  start_server /mnt/restored/data 5433
  grep -q 'automatic recovery in progress' /run/pg/log-5433 || fail "the server had nothing to recover from: $(tail -1 /run/pg/log-5433)"
  records=$(sql 5433 'select count(*), coalesce(max(n), 0) from record')
  echo "$3 committed before, $records restored, $4 begun after"
  [ "${records%|*}" = "${records#*|}" ] || fail "of ${records#*|} records ${records%|*} are there"
  [ "${records%|*}" -ge "$3" ] || fail "$3 records were committed before the backup, which has ${records%|*}"
  [ "${records%|*}" -le "$4" ] || fail "the backup has ${records%|*} records, and later there were $4"
  sums=$(sql 5433 'select (select sum(abalance) from pgbench_accounts), (select sum(bbalance) from pgbench_branches),
    (select sum(tbalance) from pgbench_tellers), (select coalesce(sum(delta), 0) from pgbench_history)')
  [ "$(tr '|' '\n' <<<"$sums" | sort -u | wc -l)" = 1 ] || fail "the sums of pgbench's tables differ: $sums"
  stop_server /mnt/restored/data
  expect 0 as_postgres $PG/pg_checksums --check -D /mnt/restored/data
  umount /mnt/restored
  check_fs ext4 "$(region "$2")"
}
# make_database: a server with its data on a file system of 150 MiB on DISK, whose partition is in $p then.
make_database() {
  mount_new /mnt/pg
  mkdir -p /mnt/pg/data /run/pg
  chown postgres:postgres /mnt/pg/data /run/pg
  as_postgres $PG/initdb -D /mnt/pg/data --locale=C -E UTF8 --data-checksums --wal-segsize=1 >/run/initdb.log 2>&1 || fail "initdb: $(tail -3 /run/initdb.log)"
  # Small enough to be written over many times.
  as_postgres tee -a /mnt/pg/data/postgresql.conf >/dev/null <<C
listen_addresses = ''
unix_socket_directories = '/run/pg'
shared_buffers = 8MB
dynamic_shared_memory_type = mmap
min_wal_size = 2MB
max_wal_size = 6MB
jit = off
C
  start_server /mnt/pg/data 5432
  sql 5432 'create table record (n integer)'
  as_postgres $PG/pgbench -h /run/pg -i -q -s 1 postgres 2>/run/pgbench.log || fail "pgbench: $(tail -3 /run/pgbench.log)"
}
# start_committing: the load, in $load, and a client whose committed records are in /run/committed.
start_committing() {
  # One client that tells of each record when the server has said that it is committed; three that only work.
  : >/run/committed
  n=0
  # What waits in the pipe is few lines, long ones.
  rest=$(printf '%1900s' '')
  while [ ! -e /run/stop-writers ]; do
    n=$((n + 1))
    echo "insert into record values ($n) returning n; -- $rest"
  done 3>&- | as_postgres stdbuf -oL $PG/psql -h /run/pg -d postgres -qAtX -v ON_ERROR_STOP=1 >/run/committed &
  records=$!
  as_postgres $PG/pgbench -h /run/pg -c 3 -T 7200 postgres >/run/pgbench.log 2>&1 &
  load=$!
}
stop_committing() {
  kill -0 $load || fail "pgbench has ended: $(tail -3 /run/pgbench.log)"
  touch /run/stop-writers
  wait $records || fail "the client that tells of its records failed"
  pkill -INT pgbench
  wait $load || true
}
