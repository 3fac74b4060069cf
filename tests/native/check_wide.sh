#!/usr/bin/env bash
# The native unit tests have 16-bit wide characters; no wide function of the system, which has 32-bit ones, may
# be called from them.
#   check_wide.sh PROGRAM NM
set -euo pipefail

symbols=$("$2" -D --undefined-only "$1")
# An empty list would mean that the question was wrong, not that the answer is good.
grep -q __libc_start_main <<<"$symbols" || { echo "no dynamic symbols found in $1"; exit 1; }
if found=$(grep -E ' (wcs|wmem|wcto|towl|towu|isw)[a-z0-9]*(@|$)| [a-z_]*w(printf|scanf)(@|$)' <<<"$symbols"); then
    printf 'wide functions of the system are called:\n%s\n' "$found"
    exit 1
fi
