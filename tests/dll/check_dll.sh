#!/usr/bin/env bash
# The shape of the shipped DLL: its exports are exactly what the public header declares, it needs nothing but
# Windows, its addresses are randomised, its data cannot be executed, it carries its version, and the one that is
# shipped is small, with its debug information in a file beside it.
#   check_dll.sh DLL HEADER VERSION OBJDUMP WINDRES BUILD_TYPE
set -euo pipefail

dll=$1 header=$2 version=$3 objdump=$4 windres=$5 build_type=$6
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

headers=$("$objdump" -p "$dll")

# --- exports
declared=$(sed -n 's/^VTFLTMGR_API DWORD WINAPI \([A-Za-z0-9]*\)(.*/\1/p' "$header" | sort)
# "Ordinal/Name Pointer" table: "    [   0] Name" (a line may carry the ordinal before the name).
exported=$(awk '/^\[Ordinal\/Name Pointer\] Table/ { on = 1; next } /^$/ { on = 0 } on { print $NF }' <<<"$headers" | sort)
count=$(grep -c . <<<"$declared" || true)
[ "$count" = 22 ] || fail "the header declares $count functions, not 22"
if ! difference=$(diff <(echo "$declared") <(echo "$exported")); then
    fail "the header (<) and the exports (>) differ:"$'\n'"$difference"
fi
# Nothing is exported by number alone.
addresses=$(awk '/^Export Address Table -- Ordinal Base/ { on = 1; next } /^$/ { on = 0 } on' <<<"$headers" | grep -c . || true)
[ "$addresses" = 22 ] || fail "the export address table has $addresses entries, not 22"

# --- imports
allowed='kernel32|advapi32|msvcrt|version|rpcrt4|user32'
imports=$(sed -n 's/^[[:space:]]*DLL Name: //p' <<<"$headers")
[ -n "$imports" ] || fail "no imports found"
if foreign=$(grep -vixE "($allowed)\.dll" <<<"$imports"); then
    fail "imports from other than Windows system DLLs:"$'\n'"$foreign"
fi

# --- address-space randomisation, no execution of data
flags=$(sed -n 's/^DllCharacteristics[[:space:]]*//p' <<<"$headers")
for flag in 0x20:HIGH_ENTROPY_VA 0x40:DYNAMIC_BASE 0x100:NX_COMPAT; do
    ((0x$flags & ${flag%%:*})) || fail "DllCharacteristics $flags lack ${flag#*:}"
done
"$objdump" -h "$dll" | grep -q ' \.reloc ' || fail "no relocations, without which the DLL cannot be moved"

# --- version resource
resource=$("$windres" --input-format=coff --output-format=rc -i "$dll" 2>&1) || fail "windres: $resource"
numbers=$(sed -n 's/^[[:space:]]*FILEVERSION[[:space:]]*//p' <<<"$resource" | tr -d ' \r' | tr ',' '.')
[ "$numbers" = "$version" ] || fail "the file version is '$numbers', not $version"
grep -q "\"FileVersion\".*\"$version" <<<"$resource" || fail "no FileVersion text $version"

# --- size, and where the debug information is
size=$(stat -c %s "$dll")
if [ "$build_type" = RelWithDebInfo ]; then
    [ "$size" -lt 1048576 ] || fail "the DLL has $size bytes, not less than 1 MiB"
    "$objdump" -h "$dll" | grep ' \.gnu_debuglink ' >/dev/null || fail "no link to the debug information"
    "$objdump" -h "$dll.debug" | grep ' \.debug_info ' >/dev/null || fail "no debug information in $dll.debug"
fi

[ "$failures" = 0 ] || exit 1
echo "22 exports; imports: $(tr '\n' ' ' <<<"$imports"); flags 0x$flags; version $version; $size bytes"
