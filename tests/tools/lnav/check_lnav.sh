#!/usr/bin/env bash
# check_lnav.sh FORMAT SAMPLE [COMMAND...]: whether lnav takes the format file, and reads the sample with it as meant.
# COMMAND is a vtlog that runs here: then its --plain output of the sample as a wide log file must be the sample again.
set -euo pipefail

format=$1 sample=$2
shift 2

fail() {
    printf '%s\n' "check_lnav: $*" >&2
    exit 1
}

command -v lnav >/dev/null || fail "lnav is missing: run ./dev setup"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
# lnav keeps its settings at home; the user's own must not count, nor change.
export HOME=$folder XDG_CONFIG_HOME=$folder/config
mkdir -p "$folder/lnav/formats/vtfltmgr"
cp "$format" "$folder/lnav/formats/vtfltmgr/"

lnav -n -I "$folder/lnav" -C || fail "lnav does not take $format"

query() {
    lnav -n -I "$folder/lnav" -c ";$1" -c ':write-csv-to -' "$sample" | tail -n +2
}

# expect <text> <query>
expect() {
    local got
    got=$(query "$2") || fail "the query failed: $2"
    [ "$got" = "$1" ] || fail "$2
     gave:     $got
     expected: $1"
}

expect 6 "SELECT count(*) FROM vtfltmgr_log WHERE log_level <> 'unknown'"
expect 2 "SELECT count(*) FROM vtfltmgr_log WHERE log_level = 'error'"
expect 1 "SELECT count(*) FROM vtfltmgr_log WHERE log_level = 'warning'"
expect 2 "SELECT count(*) FROM vtfltmgr_log WHERE log_level = 'info'"
expect 1 "SELECT count(*) FROM vtfltmgr_log WHERE log_level = 'debug'"
expect '2026-11-21 10:00:02.500,100,200,00000005,backup.exe,VTFltMgr.dll,0.1' \
    "SELECT log_time, pid, tid, code, program, module, version FROM vtfltmgr_log WHERE code = '00000005'"
expect '12345678' "SELECT pid FROM vtfltmgr_log WHERE code = '00010001'"
expect 1 "SELECT count(*) FROM vtfltmgr_log WHERE log_body LIKE '%größe%'"
expect 1 "SELECT count(*) FROM vtfltmgr_log WHERE log_text LIKE '%second line%'"

# As people use it: from a pipe.
piped=$(lnav -n -I "$folder/lnav" -c ';SELECT count(*) FROM vtfltmgr_log' -c ':write-csv-to -' <"$sample" | tail -n +2)
[ "$piped" = 7 ] || fail "from a pipe lnav sees $piped lines of the format instead of 7"

[ $# != 0 ] || exit 0
{
    printf '\xFF\xFE'
    sed 's/$/\r/' "$sample" | iconv -f UTF-8 -t UTF-16LE
} >"$folder/sample.dll.Log"
"$@" show --plain "Z:$folder/sample.dll.Log" | tr -d '\r' >"$folder/plain.log"
cmp "$folder/plain.log" "$sample" || fail "vtlog show --plain does not give the records as they stand"
