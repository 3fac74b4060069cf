#!/usr/bin/env bash
# Runs Windows programs of this project under Wine, in a Wine prefix of the project's own.
#
#   cmake/wine.sh PROGRAM [ARGUMENT...]   run a program; its output and exit code are passed on
#   cmake/wine.sh --prepare               make the prefix (once, about ten seconds)
#   cmake/wine.sh --stop                  end every program of the prefix and its server
#   cmake/wine.sh --stop-all              the same for all prefixes below build
#
# The prefix is build/wine below the project, or WINEPREFIX where that is set: tests that need not wait for one
# another have different ones. CMake and ctest run every test program through this script, so a test behaves the
# same by hand, in ctest and in ./dev.
set -eu

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export WINEPREFIX=${WINEPREFIX:-$project/build/wine}
export WINEARCH=win64
export WINEDEBUG=${WINEDEBUG:--all}
# No .NET, no HTML engine (both would ask to be downloaded), no entries in the user's desktop menus.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=d;winemenubuilder.exe=d}
# The programs have no windows: do not depend on a display that happens to be there.
unset DISPLAY WAYLAND_DISPLAY

ready=$WINEPREFIX/.prepared
idle_seconds=60

quietly() {
    "$@" </dev/null >/dev/null 2>&1
}

prepare() {
    [ ! -e "$ready" ] || return 0
    rm -rf "$WINEPREFIX"
    if ! quietly wine wineboot -i || ! quietly wineserver -w || [ ! -e "$WINEPREFIX/system.reg" ]; then
        echo "wine: the prefix $WINEPREFIX could not be made" >&2
        return 1
    fi
    touch "$ready"
}

# Wine's background processes inherit the output of the program that starts the first session, and live on
# after it: whoever reads that output through a pipe would wait for them. So the session is started here, with
# no output at all, and kept for a while after the last program.
start_session() {
    mkdir -p "$(dirname "$WINEPREFIX")"
    exec 9>"$WINEPREFIX.lock"
    flock 9
    prepare 9>&-
    # Fails when a server is running, which is what is wanted.
    if quietly wineserver -p$idle_seconds 9>&-; then
        quietly wine wineboot 9>&- || true
    fi
    exec 9>&-
}

stop() {
    [ -e "$1/.prepared" ] || return 0
    WINEPREFIX=$1 quietly wineserver -k || true
    WINEPREFIX=$1 quietly wineserver -w || true
}

case ${1:-} in
    --prepare)
        start_session
        ;;
    --stop)
        stop "$WINEPREFIX"
        ;;
    --stop-all)
        for prefix in "$project"/build/wine*/; do
            stop "${prefix%/}"
        done
        ;;
    '' | --help)
        sed -n '2,12s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
        ;;
    *)
        start_session
        exec wine "$@"
        ;;
esac
