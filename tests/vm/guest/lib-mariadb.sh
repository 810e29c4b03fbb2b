# SPDX-License-Identifier: GPL-2.0-only
# MariaDB on the disk that is backed up, clients that move amounts between accounts, and servers that start on what was restored.

as_mysql() { setpriv --reuid mysql --regid mysql --clear-groups env HOME=/run/db "$@" 3>&-; }
mariadb_sql() { as_mysql mariadb --no-defaults -S "/run/db/$1" -N -B "${@:2}" bank; }
start_mariadb() { # DIRECTORY SOCKET, the server's process is in $mariadb then
  local try
  # Small enough to be written over many times; each commit is on the disk.
  as_mysql mariadbd --no-defaults --datadir="$1" --socket="/run/db/$2" --pid-file="/run/db/$2.pid" --log-error="/run/db/$2.log" \
    --skip-networking --skip-grant-tables --innodb-buffer-pool-size=8M --innodb-log-file-size=4M --innodb-flush-log-at-trx-commit=1 \
    --performance-schema=off --key-buffer-size=1M --aria-pagecache-buffer-size=1M --innodb-use-native-aio=0 &
  mariadb=$!
  for try in $(seq 1200); do
    if mariadb_sql "$2" -e 'select 1' >/dev/null 2>&1; then return; fi
    kill -0 $mariadb 2>/dev/null || fail "the server on $1 has ended: $(tail -5 "/run/db/$2.log" | tr '\n' ' ')"
    sleep 0.1
  done
  fail "the server on $1 does not start in 120 s"
}
stop_mariadb() { # SOCKET
  kill "$(cat "/run/db/$1.pid")"
  wait $mariadb || fail "the server ended with $?"
}
# make_mariadb: a server with its data on a file system of 150 MiB on DISK, whose partition is in $p then.
make_mariadb() {
  mount_new /mnt/db
  mkdir -p /mnt/db/data /run/db
  chown mysql:mysql /mnt/db/data /run/db
  as_mysql mariadb-install-db --no-defaults --datadir=/mnt/db/data --auth-root-authentication-method=normal --skip-test-db \
    --force --innodb-log-file-size=4M >/run/install.log 2>&1 || fail "mariadb-install-db: $(grep -v '^$' /run/install.log | tr '\n' ' ')"
  mkdir /mnt/db/data/bank
  chown mysql:mysql /mnt/db/data/bank
  start_mariadb /mnt/db/data first
  mariadb_sql first -e "create table record (n integer) engine=innodb; create table account (id integer primary key, balance integer not null) engine=innodb;
    create table history (a integer, b integer, amount integer, filler char(80)) engine=innodb; insert into account select seq, 0 from seq_1_to_1000"
}
transfers() { # FIRST
  local a b amount n=$1
  while [ ! -e /run/stop-writers ]; do
    n=$((n + 1))
    # In ascending order: none waits for one that waits for it.
    a=$((n * 7919 % 500 + 1)) b=$((n * 104729 % 500 + 501)) amount=$((n % 2001 - 1000))
    echo "start transaction; update account set balance = balance - $amount where id = $a; update account set balance = balance + $amount where id = $b;" \
      "insert into history values ($a, $b, $amount, '$n'); commit;"
  done
}
# Three clients, and one whose committed records are in /run/committed.
start_transfers() {
  local client rest
  : >/run/committed
  clients=()
  for client in 1 2 3; do
    transfers $((client * 1000000)) 3>&- | mariadb_sql first &
    clients+=($!)
  done
  # What waits in the pipe is few lines, long ones.
  rest=$(printf '%1900s' '')
  n=0
  while [ ! -e /run/stop-writers ]; do
    n=$((n + 1))
    echo "insert into record values ($n); select $n; -- $rest"
  done 3>&- | mariadb_sql first --unbuffered >/run/committed &
  clients+=($!)
}
stop_transfers() {
  local client
  touch /run/stop-writers
  for client in "${clients[@]}"; do wait "$client" || fail "a client failed"; done
}
# Checks what was restored: COMMITTED records at least, all that come before the last one, and that no amount is lost.
recovered_mariadb() { # BACKUP REGION COMMITTED BEGUN
  local records wrong table first=$mariadb
  mount_restored "$1" "$2"
  start_mariadb /mnt/restored/data second
  grep -q 'Starting crash recovery' /run/db/second.log || fail "the server had nothing to recover from: $(tail -1 /run/db/second.log)"
  records=$(mariadb_sql second -e 'select count(*), coalesce(max(n), 0) from record' | tr '\t' '|')
  echo "$3 committed before, $records restored, $4 begun after"
  [ "${records%|*}" = "${records#*|}" ] || fail "of ${records#*|} records ${records%|*} are there"
  [ "${records%|*}" -ge "$3" ] || fail "$3 records were committed before the backup, which has ${records%|*}"
  [ "${records%|*}" -le "$4" ] || fail "the backup has ${records%|*} records, and later there were $4"
  wrong=$(mariadb_sql second -e 'select count(*) from account left join (select id, sum(amount) as moved from (select a as id, -amount as amount from history
    union all select b, amount from history) as moves group by id) as sums using (id) where balance <> coalesce(moved, 0)')
  [ "$wrong" = 0 ] || fail "$wrong accounts are not what the history says"
  [ "$(mariadb_sql second -e 'select sum(balance) from account')" = 0 ] || fail "amounts are lost"
  for table in record account history; do
    mariadb_sql second -e "check table $table extended" | grep -qP '\tstatus\tOK$' || fail "the table $table is damaged"
  done
  stop_mariadb second
  mariadb=$first
  : >/run/db/second.log
  umount /mnt/restored
  check_fs ext4 "$(region "$2")"
}
