#!/usr/bin/env bash
# The completion scripts and the manual page that vtfltctl makes of its own commands, taken by those that use them.
#   check_completion.sh [RUNNER...] VTFLTCTL
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$@" completion bash | tr -d '\r' >"$work/completion.bash"
"$@" completion powershell | tr -d '\r' >"$work/completion.ps1"
"$@" man | tr -d '\r' >"$work/vtfltctl.1"

# In a file, because it may be said in a subshell.
fail() {
    echo "FAILED: $*" >&2
    touch "$work/failed"
}

# complete <word>...: what a shell that has loaded the script offers for the last word, one a line.
complete_words() {
    # Each offer of the shell itself, in a shell of its own, as a user's would be.
    (cd "$work/files" && bash --norc -c '
        set -u
        source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=()
        function=$(complete -p vtfltctl | sed "s/.*-F \([^ ]*\) .*/\1/")
        "$function" vtfltctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        printf "%s\n" "${COMPREPLY[@]+"${COMPREPLY[@]}"}"' bash "$work/completion.bash" "$@" 2>"$work/errors")
    [ ! -s "$work/errors" ] || fail "the shell complained: $(cat "$work/errors")"
}

# offers <expected words> -- <typed words>: just these, in alphabetical order.
offers() {
    local expected=$1 found
    shift 2
    found=$(complete_words "$@" | sort | tr '\n' ' ')
    [ "$found" = "$expected " ] || fail "after '$*' the shell offers '$found', not '$expected'"
}
offers_also() {
    local word=$1
    shift 2
    complete_words "$@" | grep -qxF -e "$word" || fail "after '$*' the shell does not offer '$word'"
}

mkdir -p "$work/files/folder"
touch "$work/files/some.dat" "$work/files/with blank.dat"
bash -n "$work/completion.bash" || fail "the script is no bash"

offers "bitmap" -- vtfltctl bit
for command in info extents diff map; do
    offers_also "$command" -- vtfltctl bitmap ""
done
offers_also apps -- vtfltctl ""
offers "register" -- vtfltctl apps r
offers "--start" -- vtfltctl bitmap extents --st
offers "base both child" -- vtfltctl bitmap info --which ""
offers "base both" -- vtfltctl bitmap info --which b
offers "child" -- vtfltctl bitmap info --which = c
offers "bash" -- vtfltctl completion b
offers "folder" -- vtfltctl bitmap info --simulate ""
offers "some.dat" -- vtfltctl bitmap info s
offers "some.dat" -- vtfltctl bitmap map --png so
offers_also "with blank.dat" -- vtfltctl bitmap diff some.dat w
offers "some.dat" -- vtfltctl bitmap diff so
# A value that happens to be a command's name is none, and a text has nothing to offer.
offers_also "--which" -- vtfltctl bitmap info --app apps --w
offers "" -- vtfltctl bitmap extents --limit ""

# Every command and option of the help is in both scripts and in the manual.
words=$("$@" bitmap extents --help | tr -d '\r' | grep -oE -- '--[a-z-]+' | sort -u)
[ "$(wc -l <<<"$words")" -ge 10 ] || fail "the help of bitmap extents names too few options"
for word in $words; do
    grep -qF -e "$word" "$work/completion.bash" || fail "$word is not in the bash script"
    grep -qF -e "'$word'" "$work/completion.ps1" || fail "$word is not in the PowerShell script"
    grep -qF -e "${word//-/\\-}" "$work/vtfltctl.1" || fail "$word is not in the manual"
done

# PowerShell is not at hand: its script is looked through for quotes and brackets that do not close, and run where
# there is one.
python3 - "$work/completion.ps1" <<'PY' || fail "the PowerShell script is malformed"
import sys
closing, stack, quote, comment = {")": "(", "}": "{", "]": "["}, [], "", False
for c in open(sys.argv[1], encoding="utf-8").read():
    if comment:
        comment = c != "\n"
    elif quote:
        quote = "" if c == quote else quote  # a doubled quote closes and opens again
        assert c != "\n", "a text goes over a line's end"
    elif c in "'\"":
        quote = c
    elif c == "#":
        comment = True
    elif c in "({[":
        stack.append(c)
    elif c in closing:
        assert stack and stack.pop() == closing[c], "a bracket closes another"
assert not stack and not quote, "something is left open"
PY
if command -v pwsh >/dev/null; then
    pwsh -NoProfile -Command ". '$work/completion.ps1'" || fail "PowerShell refuses its script"
fi

# The manual, to those that format it. mandoc wants a date at the top, where this page has a version.
if command -v mandoc >/dev/null; then
    mandoc -T lint -W warning "$work/vtfltctl.1" >"$work/lint" 2>&1 || true
    if grep -v 'date' "$work/lint" | grep -E 'WARNING|ERROR|UNSUPP'; then
        fail "mandoc finds fault with the manual"
    fi
fi
warnings=$(groff -man -Tutf8 -ww -z "$work/vtfltctl.1" 2>&1) || fail "groff refuses the manual"
[ -z "$warnings" ] || fail "groff warns: $warnings"
groff -man -Tutf8 -P-c "$work/vtfltctl.1" | sed 's/.\x08//g' >"$work/manual.txt"
for text in "vtfltctl bitmap map" "--png FILE" "EXIT STATUS" "SYNOPSIS" "12 (verify-required)"; do
    grep -qF -e "$text" "$work/manual.txt" || fail "the formatted manual lacks '$text'"
done

[ ! -e "$work/failed" ]
