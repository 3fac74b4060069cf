#!/usr/bin/env bash
# The same seeds give the same traces in another process, whose code and memory lie elsewhere.
#
#     same_trace.sh FOLDER      the folder with double_host and vtfltproof.exe
set -euo pipefail

cd "$1"

# The standard output has what the library writes for its caller; the last line of the other one has the trace.
trace() {
    ./double_host vtfltproof.exe "$@" 2>&1 >/dev/null | grep -o 'trace [0-9a-f]\{16\}'
}

# By seeds, some of a sweep and of the meetings, and a history in which each call fails once: one of the records of that has an address in it.
traces() {
    local nth
    trace histories --seed 9 --histories 50
    trace schedules --seed 9 --count 40
    trace meetings --part 3/500
    trace sweep failures --one-in 4000
    trace sweep power-cuts --one-in 4000
    for nth in {1..25}; do
        trace replay "machine 100:512; register 0; backup 0 0; write 0 0 5; ask 0 0 0 0 !fail $nth 32"
    done
}

first=$(traces)
second=$(traces)
if [ "$first" != "$second" ] || [ "$(wc -l <<<"$first")" != 30 ]; then
    printf 'the traces differ:\n'
    diff <(echo "$first") <(echo "$second") || true
    exit 1
fi
