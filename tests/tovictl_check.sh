#!/usr/bin/env bash
# tovictl_check.sh [EMULATOR] TOVICTL: the tool end to end.
#  - every verb answers bad arguments with one line on standard error, nothing
#    on standard output, and the exit status the table gives;
#  - the demo uses the library as a caller should: its timers fire, no ERROR,
#    and the library's own messages only with -v or VRLOG_LEVEL.
set -uo pipefail
tool=("$@")  # the cross build runs it under its emulator
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

printf '[s]\na=1\n' >"$tmp/ok.ini"
printf '[s]\na=1\n' >"$tmp/locked.ini"
chmod 000 "$tmp/locked.ini"

# status | standard error (extended regular expression, whole line) | arguments
cases=(
  "2|tovictl: unknown command 'frob' \(tovictl help lists them\)|frob"
  "2|tovictl: info: takes no arguments, got 'x'|info x"
  "2|tovictl: demo: takes no arguments, got 'x'|demo x"
  "2|tovictl: threads: takes no arguments, got 'x'|threads x"
  "2|tovictl: mem: takes no arguments, got 'x'|mem x"
  "2|tovictl: lwp: takes no arguments, got 'x'|lwp x"
  "2|tovictl: crc32c: no FILE given \(usage: tovictl crc32c \[-v\] FILE\.\.\.\)|crc32c"
  "2|tovictl: crc16: unknown option '-x' \(usage: tovictl crc16 \[-v\] FILE\.\.\.\)|crc16 -x $tmp/ok.ini"
  "1|tovictl: crc32c: cannot open '$tmp/none': No such file or directory|crc32c $tmp/none"
  "1|tovictl: crc16: '$tmp' is a directory|crc16 $tmp"
  "2|tovictl: timers: COUNT must be a number from 0 to 100000, not 'abc'|timers -n abc"
  "2|tovictl: timers: COUNT must be a number from 0 to 100000, not '-1'|timers -n -1"
  "2|tovictl: timers: COUNT must be a number from 0 to 100000, not '100001'|timers -n 100001"
  "2|tovictl: timers: unexpected '-n' \(usage: tovictl timers \[-n COUNT\]\)|timers -n"
  "2|tovictl: cpu: N must be a number from 1 to 100000, not '0'|cpu -n 0"
  "2|tovictl: cpu: unexpected 'x' \(usage: tovictl cpu \[-n N\]\)|cpu x"
  "2|tovictl: cfg: needs a verb: get, set, add, del, delsection or dump|cfg"
  "2|tovictl: cfg: unknown verb 'frob' \(get, set, add, del, delsection or dump\)|cfg frob $tmp/ok.ini"
  "2|tovictl: cfg: usage: tovictl cfg set FILE SECTION ITEM VALUE|cfg set $tmp/ok.ini s a"
  "3|tovictl: cfg: $tmp/none: no such file|cfg get $tmp/none s a"
  "3|tovictl: cfg: $tmp: is a directory|cfg dump $tmp"
  "4|tovictl: cfg: $tmp/ok.ini: no section \[t\]|cfg get $tmp/ok.ini t a"
  "5|tovictl: cfg: $tmp/ok.ini: no item b in section \[s\]|cfg del $tmp/ok.ini s b"
  "2|tovictl: time: unexpected 'b' \(usage: tovictl time \[ZONE\]\)|time a b"
  "1|tovictl: time: no zone '\.\./etc' in /usr/share/zoneinfo|time ../etc"
  "2|tovictl: numa: usage: tovictl numa \[FILE\]|numa a b"
  "1|tovictl: partitions: cannot read '$tmp/none'|partitions $tmp/none"
  "1|tovictl: partitions: '$tmp/ok.ini' is not a valid partition file|partitions $tmp/ok.ini"
  "2|tovictl: syscall: usage: tovictl syscall CMD \[HEX\]|syscall"
  "2|tovictl: syscall: CMD must be a number below 0x2000, not '0x2000'|syscall 0x2000"
  "2|tovictl: syscall: CMD must be a number below 0x2000, not '-1'|syscall -1"
  "2|tovictl: syscall: HEX must be pairs of hex digits, at most 510 bytes, not '0g'|syscall 0x401 0g"
  "2|tovictl: syscall: HEX must be pairs of hex digits, at most 510 bytes, not 'abc'|syscall 1 abc"
  "2|tovictl: dump: usage: tovictl dump PID TID|dump 1"
  "2|tovictl: dump: usage: tovictl dump PID TID|dump 1 x"
  "1|tovictl: dump: no thread 2147483647 in process $$|dump $$ 2147483647"
  "1|tovictl: dump: process $$ does not catch signal 61; it would be killed|dump $$ $$"
  "2|tovictl: crash: takes no arguments, got 'x'|crash x"
)

# Root reads any file: the permission case only means something for others.
if [ "$(id -u)" -ne 0 ]; then
  cases+=("3|tovictl: cfg: $tmp/locked.ini: cannot read: Permission denied|cfg dump $tmp/locked.ini"
          "1|tovictl: crc32c: cannot open '$tmp/locked.ini': Permission denied|crc32c $tmp/locked.ini")
fi
for c in "${cases[@]}"; do
  IFS='|' read -r want msg args <<<"$c"
  # shellcheck disable=SC2086  # the arguments are words
  "${tool[@]}" $args >"$tmp/out" 2>"$tmp/err"
  got=$?
  [ "$got" -eq "$want" ] || fail "tovictl $args: status $got, expected $want"
  [ -s "$tmp/out" ] && fail "tovictl $args: printed on standard output: $(cat "$tmp/out")"
  [ "$(wc -l <"$tmp/err")" -eq 1 ] || fail "tovictl $args: $(wc -l <"$tmp/err") lines on standard error"
  grep -Eqx -- "$msg" "$tmp/err" || fail "tovictl $args: said '$(cat "$tmp/err")'"
done

# Nobody serves private system calls in a network namespace of our own (the host's port is left alone).
if unshare -n true 2>/dev/null; then
  unshare -n "${tool[@]}" syscall 0x401 >"$tmp/out" 2>"$tmp/err"
  got=$?
  [ "$got" -eq 1 ] && [ ! -s "$tmp/out" ] && grep -Eqx 'tovictl: syscall: no server on 127\.0\.0\.1 port 5583: .+' "$tmp/err" ||
    fail "tovictl syscall without a server: status $got, said '$(cat "$tmp/err")'"
fi

# The demo: every timer fires, nothing goes wrong, and only the tool speaks.
env -u VRLOG_LEVEL "${tool[@]}" demo >"$tmp/out" 2>&1 || fail "tovictl demo: status $?"
for ms in '10' '50' '120'; do
  grep -Eq "^timer of +$ms ms fired [0-9]+\.[0-9]{3} ms after its due millisecond$" "$tmp/out" ||
    fail "tovictl demo: the $ms ms timer did not report firing"
done
grep -Eq '^woke thread [0-9]+ \(tovi_wake_up_process=0\): tovi_wait_comm returned [1-9][0-9]* jiffies left' \
  "$tmp/out" || fail "tovictl demo: the woken thread did not report its jiffies left"
grep -q 'ERROR' "$tmp/out" && fail "tovictl demo: an ERROR line: $(grep ERROR "$tmp/out")"
grep -q 'Tovi init start.' "$tmp/out" && fail "tovictl demo: the library's start messages by default"
env -u VRLOG_LEVEL TOVI_COMPANION=bogus "${tool[@]}" -v info >"$tmp/out" 2>&1
grep -q 'Tovi init start.' "$tmp/out" || fail "tovictl -v info: the library's messages are missing"
grep -q 'Unknown TOVI_COMPANION value bogus, choosing the companion automatically.$' "$tmp/out" || fail "TOVI_COMPANION=bogus: not warned"
# VRLOG_LEVEL decides when set, for every module or for one.
VRLOG_LEVEL=3 "${tool[@]}" info >"$tmp/out" 2>&1
grep -q 'Tovi init start.' "$tmp/out" && fail "VRLOG_LEVEL=3 tovictl info: messages above the threshold"
VRLOG_LEVEL=3,381=6 "${tool[@]}" info >"$tmp/out" 2>&1
grep -q 'Tovi init start.' "$tmp/out" || fail "VRLOG_LEVEL=3,381=6 tovictl info: the library's messages are missing"

# A zone with DST: its offset now and the table's next four changes.
"${tool[@]}" time Australia/Sydney >"$tmp/out" 2>&1 || fail "tovictl time Australia/Sydney: status $?"
grep -Eq '^zone: +Australia/Sydney \(AE[SD]T, UTC\+1[01]:00\)$' "$tmp/out" || fail "tovictl time: $(cat "$tmp/out")"
[ "$(grep -Ec '^next: .* UTC  UTC\+1[01]:00$' "$tmp/out")" -eq 4 ] || fail "tovictl time: $(cat "$tmp/out")"
# The NUMA nodes of a file, with the one this process uses marked.
printf '[NUMA_PARTITION]\ncpu_num=4\nnuma_num=2\nnuma_0=0-1\nnuma_1=2-3,9\n[PROC_PARTITION]\nnuma_enable=true\nproc_numa_info=1\n' >"$tmp/numa.ini"
"${tool[@]}" numa "$tmp/numa.ini" >"$tmp/out" 2>&1 || fail "tovictl numa: status $?"
grep -qx 'node 1   used   2-3,9' "$tmp/out" || fail "tovictl numa: said '$(cat "$tmp/out")'"
# The crash demo: the child's dump names the faulting function, then it dies of SIGSEGV.
"${tool[@]}" crash >"$tmp/out" 2>"$tmp/err" || fail "tovictl crash: status $?"
grep -Eq '^child [0-9]+ died of signal 11 ' "$tmp/out" || fail "tovictl crash: said '$(cat "$tmp/out")'"
grep -q 'RIP=0x[0-9a-f]* value=0x[0-9a-f]* func=tovictl_crash_here+0x' "$tmp/err" ||
  fail "tovictl crash: the dump does not name the faulting function"
# One CPU sample (the topology, a heading with a column per CPU, one line of percentages); the library's shared memory.
"${tool[@]}" cpu -n 1 >"$tmp/out" 2>&1 && "${tool[@]}" mem >>"$tmp/out" 2>&1 || fail "tovictl cpu -n 1 / mem: status $?"
for re in '^[0-9]+ package\(s\), [0-9]+ logical CPU\(s\), [0-9]+ online, model .+$' '^time +all +mem( +cpu[0-9]+)+$' \
  '^[0-9]{2}:[0-9]{2}:[0-9]{2}( +[0-9]{1,3}%)+$' '^  posix  SYSINFO_PUICPUUSAGE_NOROOT +[0-9]+ bytes at 0x'; do
  [ "$(grep -Ec "$re" "$tmp/out")" -eq 1 ] || fail "tovictl cpu -n 1 / mem: not one line like $re"
done
# The sample instances: listed in order of construction, destroyed newest first.
"${tool[@]}" lwp >"$tmp/out" 2>&1 || fail "tovictl lwp: status $?"
grep -Eq '^6 +io_context +103 +2 +1056$' "$tmp/out" || fail "tovictl lwp: no sixth instance line: $(cat "$tmp/out")"
[ "$(grep '^destroyed context' "$tmp/out" | head -1)" = "destroyed context 103" ] || fail "tovictl lwp: not newest first"

# The manual page has an entry for every command the tool lists.
for verb in $("${tool[@]}" help | sed -n 's/^  \([a-z0-9]*\) .*/\1/p'); do
  grep -Eq "^\.B[IR]? \"?$verb( |\"|\$)" "$(dirname "$0")/../doc/man/tovictl.1" || fail "tovictl.1: no entry for '$verb'"
done

[ "$failures" -eq 0 ] && echo "tovictl: all checks passed"
exit $((failures != 0))
