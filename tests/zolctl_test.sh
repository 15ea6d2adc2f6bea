#!/bin/bash
# Tests zolctl from the outside, with a store of its own.
# Usage: [ZOL_OTHER_ZOLCTL=ZOLCTL_OF_ANOTHER_WORD_SIZE] tests/zolctl_test.sh ZOLCTL SOURCE_DIR
# shellcheck disable=SC2013,SC2016,SC2030,SC2031,SC2046,SC2086 # names have no blanks, and tables are to be split
set -uo pipefail

zolctl=$(realpath "$1")
source_dir=$(realpath "$2")
work=$(mktemp -d)
example=$work/living-room.json
cp "$source_dir/examples/living-room.json" "$example"
export ZOL_VCONF_DIR=$work/store
unset ZOL_DLOG NO_COLOR
failures=0 makers=0 watcher=
trap '[ -z "$watcher" ] || kill -KILL "$watcher" 2>/dev/null; rm -rf "$work"' EXIT

fail() { echo "FAILED: $*" && failures=$((failures + 1)); }
same() { [ "$2" = "$3" ] || fail "$1: got '$2', not '$3'"; }

# check CASE EXIT OUT ERR ARG...: runs zolctl and compares its exit code, its output (exactly) and its errors (a part).
check() {
    local case=$1 exit=$2 out=$3 err=$4 got_out got_err
    shift 4
    got_out=$("$zolctl" "$@" 2>"$work/err" </dev/null)
    same "$case: exit code" $? "$exit"
    same "$case: output" "$got_out" "$out"
    got_err=$(<"$work/err")
    [[ $got_err == *"$err"* && (-n $err || -z $got_err) ]] || fail "$case: wrote '$got_err', not '$err'"
}

# says CASE PART COMMAND...: runs the command, which may fail, and looks for the part in its output and errors.
says() {
    local got
    got=$("${@:3}" 2>&1)
    [[ $got == *"$2"* ]] || fail "$1: wrote '$got', not '$2'"
}

# until_true CASE COMMAND...: waits for the command to succeed.
until_true() {
    local tries
    for ((tries = 0; tries < 600; ++tries)); do
        "${@:2}" && return
        sleep 0.05
    done
    fail "$1: did not happen: ${*:2}"
}

# start_watch COUNT ARG...: starts a watcher and waits until it is ready. When it ends by the timeout, it ends with 1.
start_watch() {
    : >"$work/err"
    env --default-signal=INT "$zolctl" watch --timeout 100 --count "$@" 2>"$work/err" 3>&- &
    watcher=$!
    until_true "watch $*" grep -q ^watching "$work/err"
}

# end_watch CASE EXIT [SIGNAL]
end_watch() {
    [ $# -lt 3 ] || kill "-$3" "$watcher"
    wait "$watcher"
    same "$1: exit code" $? "$2"
    watcher=
}

# A library in front of the platform that breaks one promise.
"${CXX:-c++}" -std=c++17 -shared -fPIC "-I$source_dir/platform/vconf/include" -x c++ - -o "$work/faults.so" \
    <<'END' || fail "faults"
#include <dlfcn.h>
#include <unistd.h>
#include <vconf.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#define NEXT(function) reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))
constexpr char kText[] = "memory/zolctl/selftest/text";
const std::string& fault = *new std::string(std::getenv("FAULT"));  // threads use it to the very end
int vconf_set_str(const char* key, const char* value) {
    static int seconds = 0;
    if (fault == "refuses") return -1;
    if (fault == "cuts") return NEXT(vconf_set_str)(key, std::string(value).substr(0, 4095).c_str());
    const bool lost = fault == "lost" && value == std::string("second") && ++seconds % 2 == 0;
    return lost ? 0 : NEXT(vconf_set_str)(key, value);
}
int vconf_set_int(const char* key, int value) {
    while (fault == "stuck" && value == 0 && key != std::string(kText)) pause();
    return NEXT(vconf_set_int)(key, value);
}
int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler) {
    while (fault == "hangs" && key == std::string(kText)) pause();
    return fault == "ignored" ? 0 : NEXT(vconf_ignore_key_changed)(key, handler);
}
int vconf_get_bool(const char* key, int* value) {
    if (fault == "write") vconf_set_str(kText, "mine");
    if (fault == "crashes" && key == std::string("memory/zolctl/selftest/none")) std::raise(SIGKILL);
    if (fault == "type") NEXT(vconf_set_int)("db/menu/network/devicename/tv_name", 1);
    for (static int rest = 5000; fault == "many" && rest > 0; --rest) vconf_set_str("memory/was/app_install", "many");
    static const char* const stored = vconf_get_str(kText);
    if (fault == "show") std::puts(stored), std::fflush(stdout);
    return fault == "reads" ? 0 : NEXT(vconf_get_bool)(key, value);
}
extern "C" int mdb_txn_commit(void* transaction) {  // the first one opens the store, the second one is a write's
    static int commits = 0;
    if (fault == "stops" && ++commits == 2) std::raise(SIGSTOP);
    return NEXT(mdb_txn_commit)(transaction);
}
END
with_fault() {
    FAULT=$1 LD_PRELOAD=$work/faults.so ASAN_OPTIONS=${ASAN_OPTIONS-}:verify_asan_link_order=0 exec "$zolctl" "${@:2}"
}

# ---- the table of settings ----
"$zolctl" list >"$work/list" 2>"$work/list.err"
same "list: a new store is told apart" "$(<"$work/list.err")" "zolctl: none of these settings has a value"
names() { awk "NR > 1 && $1 { print \$1 }" "$work/list"; }
exported() { sed -nE "s/^ZOLSystemData($1)([A-Za-z]+)$2\$/\\2/p" "$source_dir/src/exports.txt" | sort -u; }
same "list: what can be read" "$(names '$3 ~ /read/' | sort)" "$(exported "Get|Is" "")"
same "list: what can be written" "$(names '$3 ~ /write/' | sort)" "$(exported Set "")"
same "list: what can be watched" "$(names '$3 ~ /watch/' | sort)" "$(exported NotifyRegister Callback)"
"$zolctl" describe $(names 1) >"$work/described"
same "describe: each call once" "$(sed -nE 's/^ +(ZOLSystemData[A-Za-z]*)::/\1/p' "$work/described" | sort)" \
    "$(grep -xE 'ZOLSystemData[A-Za-z]+' "$source_dir/src/exports.txt" | sort)"
same "describe: each watch" "$(sed -n 's/^ *ZOLWatch:://p' "$work/described" | sort)" "$(names '$3 ~ /watch/' | sort)"

# ---- reading and writing ----
check "unset boolean" 1 "" "ZOLActivated has no value; write one with zolctl set ZOLActivated VALUE" get ZOLActivated
check "unset app list" 1 "" "concurrent enable APPID" concurrent list
sed 's/: true/: false/' "$example" | "$zolctl" load -
for name in $(names '$2 == "boolean"'); do
    "$zolctl" inject "$name" 1
    same "getter and key of $name" "$("$zolctl" dump | grep ": true" | tr -d ' ,')" "\"$name\":true"
    "$zolctl" inject "$name" false
done
for name in $(names '$3 ~ /write/'); do check "set $name" 0 "" "" set "$name" on; done
"$zolctl" load "$example" || fail "load of the example"
same "dump gives what was loaded" "$(export ZOL_VCONF_DIR=$work/other && "$zolctl" load "$example" && "$zolctl" dump)" "$(<"$example")"
check "get several" 0 $'OSDLanguage=en_GB\nAmbientMode=on' "" get db/menu_widget/language ambientMODE OSDLanguage
same "list by part of a name in any case" "$("$zolctl" list osdlANG | awk 'NR > 1 { print $1 }')" OSDLanguage
"$zolctl" concurrent enable app.x app.y
"$zolctl" concurrent disable org.example.alpha app.x
(
    export ZOL_VCONF_DIR=$work/twice
    "$zolctl" inject ZOLConcurrentAppList '[{"appid":"a","concurrent":"on"},{"appid":"a","concurrent":"on"}]'
    check "disable an app that is listed twice" 1 "" "a is still on" concurrent disable a
    exit "$failures"
)
failures=$((failures + $?))
check "concurrent list" 0 '["app.y"]' "" concurrent list --json
cp "$zolctl" "$work/copy" && for app in {1..10}; do "$zolctl" concurrent enable "app.$app" & "$work/copy" concurrent enable "copy.$app" & done && wait
same "twenty at once, of two copies" "$("$zolctl" concurrent list | grep -c .)" 21
for app in a b c; do for value in {1..25}; do "$zolctl" set OSDLanguage "$app$value" || echo "$value"; done & done >"$work/out" 2>&1 && wait
same "three writers: refused" "$(<"$work/out")" ""

# ---- refusals ----
"$zolctl" dump >"$work/before"
while IFS='|' read -r arguments err; do check "zolctl $arguments" 2 "" "$err" $arguments; done <<'END'
|zolctl --help
concurrent on app.x|unknown command on; zolctl concurrent --help
concurrent enable -x|unknown option -x; put -- before a text that begins with a dash; zolctl concurrent enable --help
help gte|unknown command gte; did you mean get?
reset TVName|unknown command reset; the store has no call that removes a value; write another with zolctl set
unset TVName|no call that removes a value
monitor|use zolctl watch
read TVName|use zolctl get
write TVName x|use zolctl set
--json list|the option --json must follow its command: zolctl list --json
watch --timeout nan|nan is not a number from 0.001 to 1000000000;
selftest --timeout nan|nan is not a number from 0.1 to 3600;
watch --count 5x|5x is not a number from 1 to 1000000000;
list Xyz|no setting matches Xyz
watch --until on|--until needs the name of one setting
get osdlanguag|did you mean OSDLanguage?
set ModelId x|ModelId has no setter; use zolctl inject ModelId VALUE
set ZOLActivated maybe|takes on, off
watch TVName|these can: 
watch modeli|cannot be watched; these can: 
inject BackgroundVolume 2147483648|from -2147483648 to 2147483647
inject BackgroundVolume 5x|from -2147483648 to 2147483647
load none.json|No such file
END
check "empty text" 2 "" "refuses empty values" set OSDLanguage ""
check "no app" 2 "" "not a valid app id" concurrent enable app.z ""
while IFS='|' read -r text err; do
    printf "%b" "$text" >"$work/file.json"
    check "load ${text:0:60}" 2 "" "$err" load "$work/file.json"
done <<END
{"TVName":"x","TVNam":"x"}|file.json: unknown setting TVNam; did you mean TVName?
{"TVName":"x","BackgroundVolume":1.0}|from -2147483648 to
{"TVName":"x","TVName":"x"}|TVName appears twice
{"TVName":"x\\\\u0000y"}|NUL character
{"TVName":"x"}\\n{|line 2: not JSON
{"TVName":"x"}\\0000{|line 1: not JSON: a NUL character
["TVName"]|one JSON object
$(printf '[%.0s' {1..100000})|not JSON
END
{ printf '{"TVName":"x","OSDCountry":"' && head -c 67108865 /dev/zero | tr '\0' v && printf '"}'; } >"$work/file.json"
check "load of a text that is too long" 2 "" "OSDCountry is longer than 64 MiB" load "$work/file.json"
echo '{"TVName":"dry","ZOLActivated":true}' >"$work/file.json"
check "dry run" 0 $'TVName=dry\nZOLActivated=on' "" load --dry-run "$work/file.json"
same "refused, so nothing is written" "$("$zolctl" dump)" "$(<"$work/before")"
for command in "set OSDLanguage x" "set ZOLActivated on" "inject TVName x" "concurrent enable a" "concurrent list" \
    "watch" "load $example" "get TVName" "get AmbientMode" "list" "list --json" "dump" "describe TVName"; do
    ZOL_VCONF_DIR=$work/before/store check "unusable store: $command" 3 "" \
        "the store cannot be used: cannot create folder $work/before/store: Not a directory" $command
done
out=$(env -u ZOL_VCONF_DIR XDG_STATE_HOME="$work/state" XDG_RUNTIME_DIR=relative "$zolctl" status)
same "status with one unusable store: exit code" $? 3
[[ $out == *"can be used"*"XDG_RUNTIME_DIR must be an absolute path"* ]] || fail "status with one unusable store: $out"

for command in "set AovModeSetter user" "concurrent enable app.y"; do
    (with_fault refuses $command) 2>/dev/null && fail "refused: $command"
done
says "load that is refused" "1 of 2 settings were written" \
    with_fault refuses load - <<<'{"AmbientMode":true,"TVName":"x"}'
(with_fault type get ZOLActivated) >/dev/null
check "get another type" 1 "" "TVName holds an integer, not its own type (string); write one" get TVName
says "list another type" "(an integer)" "$zolctl" list TVName
says "describe another type" "value   (an integer)" "$zolctl" describe TVName
says "dump another type" "TVName holds an integer, not its own type (string), and is left out" "$zolctl" dump
says "status and another type" "have a value; TVName holds an integer" "$zolctl" status

# ---- output ----
nasty=$'\e[2J\x07\x7f \xc2\x9b \xc3\xbc'
"$zolctl" inject TVName "$nasty"
on_terminal() { script -qec "'$zolctl' $1" /dev/null </dev/null; }
same "escaped on a terminal" "$(on_terminal "get TVName")" '\x1b[2J\x07\x7f \xc2\x9b '$'\xc3\xbc\r'
says "JSON on a terminal" '"\u001B[2J\u0007\u007f \u009b '$'\xc3\xbc"' on_terminal "get TVName --json"
[[ $(TERM=xterm on_terminal list) == *$'\e[1mNAME'* ]] || fail "colour on a terminal"
[[ $(TERM=xterm NO_COLOR=1 on_terminal list) != *$'\e'* ]] || fail "colour with NO_COLOR"
same "dump and load" "$("$zolctl" dump | "$zolctl" load - && "$zolctl" get TVName)" "$nasty"
"$zolctl" inject TVName $'\xff'
check "not UTF-8" 1 $'{\n    "AmbientMode": true\n}' "TVName is not UTF-8 and is left out of the JSON; zolctl list" \
    get TVName AmbientMode --json
for command in list --help --version; do
    { "$zolctl" $command >/dev/full || "$zolctl" $command >&-; } 2>/dev/null && fail "full or closed: $command"
done
for text in $'a\nb' 'a\x0ab' - '(a string)'; do
    "$zolctl" set OSDLanguage - <<<"$text" && "$zolctl" list OSDL
done >"$work/out"
same "list: no two values look alike" "$(awk '!/^NAME/ { print $4 }' "$work/out")" $'a\\x0ab\na\\\\x0ab\n\\x2d\n\\x28a'
says "the log with -v" libZOL env ZOL_DLOG=off "$zolctl" get OSDCountry -v
says "the log with ZOL_DLOG" libZOL env ZOL_DLOG=stderr "$zolctl" get OSDCountry
says "status and a log that cannot be written" "target     standard error, since /no/log cannot be opened: No such file" \
    env ZOL_DLOG=/no/log "$zolctl" status

# ---- watch ----
start_watch "$(names '$3 ~ /watch/' | wc -l)" --json >"$work/out"
for name in $(names '$3 ~ /watch/'); do "$zolctl" inject "$name" 1; done
end_watch "watch all" 0
same "watch all" "$(cut -d'"' -f8 "$work/out")" "$(names '$3 ~ /watch/')"
json='\{"time":"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}","name":"[A-Za-z]+","value":("1"|1|true)\}'
same "watch all: other lines" "$(grep -vxE "$json" "$work/out")" ""
"$zolctl" inject ZOLConcurrentAppList '[{"appid":"a","concurrent":"on"}]'
start_watch 99 ZOLConcurrentAppList WebAppInstall --diff >"$work/out"
same "status" "$("$zolctl" status | grep -cE "$ZOL_VCONF_DIR/(persistent|volatile)|$watcher \(|([0-9]+) of \2 have a value")" 6
"$zolctl" concurrent enable b
"$zolctl" concurrent disable a c
"$zolctl" inject ZOLConcurrentAppList nothing
"$zolctl" inject WebAppInstall $'a\nb'
until_true "watch" grep -qE '^[0-9:.]{12}  WebAppInstall  a\\x0ab$' "$work/out"
end_watch "watch and INT" 130 INT
same "watch --diff" "$(grep -v Install "$work/out" | cut -d' ' -f5-)" $'+b\n-a\n(no app changed)\n-b (not a list)'
check "watch timeout" 1 "" "timed out after 0 of 1" watch ZOLActivated --count 1 --timeout 0.05
check "watch for a time" 0 "" "watching 1 setting" watch ZOLActivated ZOLActivated --timeout 0.05
same "watch --until what is" "$("$zolctl" watch ZOLActivated --until on 2>&1 | cut -d' ' -f3-)" $'setting\nZOLActivated  on'
start_watch 99 ZOLActivated ZOLLanguage --initial >"$work/out"
"$zolctl" set ZOLActivated off
until_true "watch --initial" grep -q off "$work/out"
end_watch "watch --initial" 143 TERM
same "watch --initial" "$(cut -d' ' -f3- "$work/out")" $'ZOLLanguage  1\nZOLActivated  on\nZOLActivated  off'

start_watch 2 WebAppInstall --json >"$work/out"
kill -STOP "$watcher"
(with_fault many get ZOLActivated) >/dev/null
kill -CONT "$watcher"
until_true "the last change" grep -q '"value":"many"' "$work/out"
"$zolctl" inject WebAppInstall more
end_watch "watch that falls behind" 0
dropped=$(sed -n 's/^{"time":"[^"]*","dropped":\([0-9]*\)}$/\1/p' "$work/out")
same "watch that falls behind: every change is printed or counted" $((dropped + $(grep -c many "$work/out"))) 5000
same "watch that falls behind: the line is not counted as a change" "$(grep -c more "$work/out")" 1

check "watch a pattern" 0 "" "watching 6 settings" watch 'zol*' --timeout 0.05
ZOL_VCONF_DIR=$work/removed start_watch 99
kill -STOP "$watcher"
rm -r "$work/removed"
out=$(ZOL_VCONF_DIR=$work/removed "$zolctl" status)
[[ $out != *"$watcher ("* ]] || fail "status names a process that uses a removed store: $out"
kill -CONT "$watcher"
end_watch "watch of a removed store" 3
same "watch of a removed store" "$(grep -c "^zolctl: the store cannot be used: .*$work/removed" "$work/err")" 1

(with_fault stops set OSDLanguage held 2>"$work/out") &
holder=$!
until_true "a write that is stopped" grep -q '^State:.T' "/proc/$holder/status"
"$zolctl" set OSDLanguage waited 2>"$work/err" &
until_true "set that waits" grep -q "still waiting for the store; .*$holder (zolctl, stopped)" "$work/err"
kill -CONT "$holder"
wait
same "set that waited" "$("$zolctl" get OSDLanguage)" waited

start_watch 99 > >(:)
end_watch "watch whose reader is gone" 141
mkfifo "$work/pipe" && exec 3<>"$work/pipe"
ZOL_DLOG=$work/log start_watch 99 WebAppInstall --json >"$work/pipe"
for text in "$(printf 'x%.0s' {1..100000})" second third; do "$zolctl" inject WebAppInstall "$text"; done # more than a pipe holds
until_true "watch whose reader stands still" eval '[ "$(grep -cs "call cb" "$work/log")" = 3 ]'
now=$(date +%Y-%m-%dT%H:%M:%S.%3N) && sleep 0.01
timeout 30 grep -m 1 second <&3 >"$work/out"
[[ $(cut -d'"' -f4 "$work/out") < $now~ ]] || fail "the time is that of the change, before $now: $(<"$work/out")"
end_watch "watch and TERM" 143 TERM

# ---- selftest ----
same "selftest" "$("$zolctl" selftest --timeout 60 | grep -cE '^FAIL|^These keys had no value|^([0-9]+) of \1 checks hold.* 0 skipped')" 2
(with_fault write get ZOLActivated) >"$work/out"
same "selftest whose reader is gone" "$({ "$zolctl" selftest --timeout 60 | head -n 2 | wc -l; } 2>&1)" 2
while IFS='|' read -r fault hold fails; do
    out=$(with_fault "$fault" selftest --timeout 3 2>&1)
    same "selftest and $fault: exit code" $? 1
    same "selftest and $fault: checks that hold" "$(grep -o '^[0-9]* of' <<<"$out")" "$hold of"
    out=$(grep -Em 1 '^(FAIL|zolctl:)' <<<"$out")
    [[ $out == *"$fails"* ]] || fail "selftest and $fault: wrote '$out', not '$fails'"
done <<'END'
reads|16|a boolean is read as it was written (vconf_get_bool: expected 1, got 0)
lost|19|a handler is called once for each change of a string, in order (calls of the handler: expected first, second,
ignored|17|no call comes for an ended subscription, and all for another of its key (calls of the handler: expected 1, got 1, 2)
cuts|18|a string is read as it was written (vconf_get_str: expected x (5000 times), got x (4095 times))
crashes|19|no boolean is read where there is no value (vconf_get_bool: expected to return, got signal 9 (Killed))
hangs|18|a handler is called once for each change of a string, in order (vconf_ignore_key_changed: expected to return, got none in time)
stuck|20|zolctl: vconf_set_int: expected to return, got none in time
END
with_fault lost selftest --timeout 3 >"$work/out" 2>"$work/err" &
watcher=$!
until_true "selftest and TERM" grep -q "^ok   a write of another" "$work/out"
end_watch "selftest and TERM" 1 TERM
same "selftest and TERM" "$(<"$work/err")" "zolctl: interrupted"
same "the scratch keys hold what they held" "$(with_fault show get ZOLActivated | head -n 1)" mine

# ---- a store made by programs of another word size, in use or grown beyond what 32 bits can count ----
[ -n "${ZOL_OTHER_ZOLCTL-}" ] && for both in "$zolctl|$ZOL_OTHER_ZOLCTL" "$ZOL_OTHER_ZOLCTL|$zolctl"; do # from scripts/cross
    ZOL_VCONF_DIR=$work/made_by_$((++makers))
    zolctl=${both%|*} && "$zolctl" load "$example"
    start_watch 1 WebAppInstall >"$work/out"
    data=$ZOL_VCONF_DIR/persistent/data.mdb zolctl=${both#*|}
    for length in 3G "$(stat -c %s "$data")"; do
        truncate -s "$length" "$data"
        for command in "get OSDLanguage" "set OSDLanguage xx" "inject WebAppInstall xx"; do
            check "$command, $length" 3 "" " bits; set ZOL_VCONF_DIR to another folder" -v $command
        done
    done
    zolctl=${both%|*}
    same "what the other one refused" "$("$zolctl" dump && "$zolctl" inject WebAppInstall new)" "$(<"$example")"
    end_watch "the watcher of the other size" 0
done

[ "$failures" = 0 ] || { echo "$failures failures" && exit 1; }
