#!/usr/bin/env bash
# Fault test of the replicated database: events flow at 500 per second into the real
# server, whose database is a three-node Galera cluster behind HAProxy. The node HAProxy
# sends to is killed, left down for 10 s and started again. Passes when the server is
# still up and every event sent is stored exactly once.
#
#   faulttest.sh BUILD_DIR WORK_DIR HAPROXY_PORT
#
# Exit 77 (skipped) when it is off or galera-4, haproxy or mariadb-backup are missing.
set -uo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:?build dir}
work=$(realpath -m "${2:?work dir}")
port=${3:?haproxy port}

rate=500
seconds=40
events=$((rate * seconds))
kill_at=8    # seconds into the stream
down_for=10
tag=ft
serial=FAULT-PUMP-01

say() { echo "faulttest: $*"; }
skip() { say "SKIP: $*"; exit 77; }

if [ "${CMS_CLUSTER_TEST:-0}" != 1 ] && [ "${CMS_CLUSTER_TEST_ON:-0}" != 1 ]; then
  skip "off; set CMS_CLUSTER_TEST=1 (or configure with -DCMS_CLUSTER_TEST=ON) to run it"
fi
[ -f /usr/lib/galera/libgalera_smm.so ] || skip "galera-4 is not installed"
command -v haproxy >/dev/null || [ -x /usr/sbin/haproxy ] || skip "haproxy is not installed"
command -v mariabackup >/dev/null || skip "mariadb-backup is not installed"
for b in "$build/cmssvr" "$build/tests/cluster/cms_eventpump"; do
  [ -x "$b" ] || { say "FAIL: $b is not built"; exit 1; }
done

cluster() { "$src/scripts/cluster" "$@" --dir "$work/db" --port "$port"; }
sql() { cluster sql -N -e "$1"; }
# The same query on node N directly.
node_sql() { mariadb --no-defaults -h127.0.0.1 -P$((port + $1)) -ucms -pcms -N cms -e "$2"; }
free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

svr_pid=""
pump_pid=""
cleanup() {
  [ -n "$pump_pid" ] && kill "$pump_pid" 2>/dev/null
  if [ -n "$svr_pid" ]; then
    kill "$svr_pid" 2>/dev/null
    for _ in $(seq 1 100); do kill -0 "$svr_pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$svr_pid" 2>/dev/null
  fi
  cluster stop >/dev/null 2>&1
}
trap cleanup EXIT

main() {
# ---- a fresh cluster with one device whose channel 1 takes the alarms ----
cluster stop >/dev/null 2>&1
rm -rf "$work"
mkdir -p "$work/svr/config"
say "starting the cluster (HAProxy on 127.0.0.1:$port)"
cluster start | sed -u 's/^/  /' || { say "FAIL: the cluster did not start"; exit 1; }
sql "insert into region(id,name,parentid) values (1,'root',0);
     insert into device(id,name,sn,regionid,ftype,port) values (1,'pump','$serial',1,1,8000);
     insert into devicechan(id,devid,chan,name,hardwaretype) values (1,1,1,'ch1',1);" ||
  { say "FAIL: the catalogue could not be written"; exit 1; }

# ---- the server, its database behind HAProxy ----
msg_port=$(free_port)
cat >"$work/svr/config/cmslocal.xml" <<EOF
<cfg>
    <port>$msg_port</port>
    <sn>34020000002000000001</sn>
</cfg>
EOF
cat >"$work/svr/config/cmsparam.xml" <<EOF
<cfg>
    <db>
        <ip>127.0.0.1</ip>
        <port>$port</port>
        <name>cms</name>
        <user>cms</user>
        <pass>cms</pass>
        <local>0</local>
    </db>
</cfg>
EOF
(cd "$work/svr" && exec "$build/cmssvr" >out.log 2>&1) &
svr_pid=$!
for _ in $(seq 1 300); do
  grep -q 'Start server port' "$work/svr/out.log" 2>/dev/null && break
  kill -0 "$svr_pid" 2>/dev/null || break
  sleep 0.1
done
grep -q 'Start server port' "$work/svr/out.log" ||
  { say "FAIL: the server did not start"; cat "$work/svr/out.log"; exit 1; }
say "server up on 127.0.0.1:$msg_port (pid $svr_pid)"

# ---- the stream, and the fault in its middle ----
say "sending $events events at $rate/s for $seconds s"
"$build/tests/cluster/cms_eventpump" 127.0.0.1 "$msg_port" "$serial" "$events" "$rate" "$tag" \
  >"$work/pump.log" 2>&1 &
pump_pid=$!
start=$(date +%s%N)
elapsed() { local ds=$((($(date +%s%N) - start) / 100000000)); echo "$((ds / 10)).$((ds % 10))"; }

sleep "$kill_at"
active=$(sql 'select @@port') || active=""
[ -n "$active" ] || { say "FAIL: no node answers through HAProxy"; exit 1; }
victim=$((active - port))
cluster kill "$victim" >/dev/null
say "t=$(elapsed) s: killed node $victim, the one HAProxy was sending to"
mark=$(wc -l <"$work/svr/out.log")
sleep "$down_for"
say "t=$(elapsed) s: starting node $victim again; HAProxy now sends to node $(($(sql 'select @@port') - port))"
cluster start >"$work/restart.log" 2>&1 &
restart_pid=$!

wait "$pump_pid"
pump_rc=$?
pump_pid=""
sed 's/^/  /' "$work/pump.log" | grep -v ' s  ' # the per-second lines are in pump.log
wait "$restart_pid" && say "t=$(elapsed) s: node $victim is synced again" ||
  say "t=$(elapsed) s: node $victim did not rejoin; see $work/restart.log"

# ---- the verdict ----
fail=0
if kill -0 "$svr_pid" 2>/dev/null; then
  say "the server is still up"
else
  say "FAIL: the server died"
  fail=1
fi
[ "$pump_rc" = 0 ] || { say "FAIL: the pump did not get every event through (exit $pump_rc)"; fail=1; }

# Rows still in flight reach the database within a few seconds of the barrier.
where="descript like '$tag%'"
for _ in $(seq 1 20); do
  rows=$(sql "select count(*) from intveventlog where $where") || rows=-1
  [ "$rows" -ge "$events" ] && break
  sleep 1
done
distinct=$(sql "select count(distinct descript) from intveventlog where $where") || distinct=-1
say "events sent $events, rows stored $rows, distinct events stored $distinct"
if [ "$distinct" != "$events" ]; then
  say "FAIL: $((events - distinct)) events lost"
  # The lost numbers as ranges, so the gap can be set against the fault's time.
  sql "select cast(substring(descript, 3) as unsigned) from intveventlog where $where
       order by 1" | awk -v n="$events" '
    { have[$1] = 1 }
    END { for (i = 0; i < n; i++) if (!have[i]) { if (s < 0 || i != p + 1) { if (s >= 0) out(); s = i } p = i }
          if (s >= 0) out() }
    BEGIN { s = -1 }
    function out() { printf "  lost %d..%d (%.1f..%.1f s into the stream)\n", s, p, s / '"$rate"', p / '"$rate"' }' |
    head -20
  fail=1
fi
[ "$rows" = "$distinct" ] || { say "FAIL: $((rows - distinct)) events stored twice"; fail=1; }
for n in 1 2 3; do
  c=$(node_sql "$n" "select count(*) from intveventlog where $where" 2>/dev/null) || c="no answer"
  say "node $n holds $c of the rows"
  [ "$c" = "$rows" ] || fail=1
done

say "HAProxy's view:"
grep -E '^\[WARNING\].*is (DOWN|UP)' "$work/db/haproxy.log" |
  sed -E 's/^[^:]*: /  /; s/ [0-9]+ sessions (active|requeued).*$//; s/, check duration[^.]*//' | cut -c1-200
# Every event prints the same three progress lines; everything else is worth showing.
say "the server's other lines from the fault on:"
tail -n +"$((mark + 1))" "$work/svr/out.log" |
  grep -vE '^(recv alarm ProcessEventBuf|find dev mode :0|alarm:insert into intveventlog)' |
  awk '{ if (!c[$0]++) o[++n] = $0 } END { for (i = 1; i <= n && i <= 20; i++) printf "  %6d x %s\n", c[o[i]], o[i] }'
[ "$fail" = 0 ] && say "PASS" || say "FAIL (files under $work)"
exit "$fail"
}

# Read whole before it runs, so that an edit during a run cannot break it.
main "$@"
