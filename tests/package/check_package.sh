#!/usr/bin/env bash
# Makes the package twice, holds the two against each other, unpacks one and builds somebody else's project with it: by
# CMake and by pkg-config, in C and in C++; what comes out is run.
#
#     check_package.sh BUILD-FOLDER WORK-FOLDER VERSION OBJCOPY EMULATOR
set -euo pipefail
build=$1 work=$2 version=$3 objcopy=$4 emulator=$5
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
name=vtfltmgr-$version-x64
fail() {
    echo "check_package: $*" >&2
    exit 1
}

rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
for run in one two; do
    cmake --install "$build" --prefix "$work/tree-$run" >/dev/null
    mkdir "$work/$run"
    python3 -B "$source/tools/package/make_package.py" "$work/tree-$run" "$objcopy" "$work/$run/$name.zip"
    sleep 1.1 # so that a time that slipped in would differ
done
cmp "$work/one/$name.zip" "$work/two/$name.zip" || fail "two runs made different packages"

(cd "$work" && python3 -m zipfile -e "one/$name.zip" .)
package=$work/$name
(cd "$package" && sha256sum --quiet -c SHA256SUMS) || fail "the check sums are wrong"
[ "$(cd "$package" && find . -type f ! -name SHA256SUMS | wc -l)" = "$(wc -l <"$package/SHA256SUMS")" ] ||
    fail "SHA256SUMS does not list every file"
for file in bin/VTFltMgr.dll bin/VTFltSim.dll bin/vtbackup.exe bin/vtfltctl.exe bin/vtlog.exe bin/vtfltsim.exe \
    lib/libVTFltMgr.dll.a lib/libVTFltSim.dll.a lib/VTFltMgr.lib lib/VTFltSim.lib lib/pkgconfig/vtfltmgr.pc \
    include/vtfltmgr/VTFltMgr.h include/vtfltmgr/VTFltMgr.hpp include/vtfltmgr/version.h include/vtfltsim/VTFltSim.h \
    docs/library.md samples/backup_loop.c samples/testing/loop.cpp share/vtfltmgr/schema/status.json \
    share/vtfltmgr/lnav/vtfltmgr_log.json LICENSE README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md; do
    [ -s "$package/$file" ] || fail "$file is missing"
done
# The notices of what the programs contain: each there, a notice, and named in the documentation; and none that nobody knows.
notices=(CLI11 DejaVu fmt gcc-libraries mingw-w64 nlohmann-json stb xxHash)
for notice in "${notices[@]}"; do
    [ -s "$package/licenses/$notice.txt" ] || fail "licenses/$notice.txt is missing or empty"
    grep -qi copyright "$package/licenses/$notice.txt" || fail "licenses/$notice.txt is no notice"
    grep -qF "\`$notice.txt\`" "$package/docs/deploying.md" || fail "docs/deploying.md does not name $notice.txt"
done
[ "$(find "$package/licenses" -type f | wc -l)" = "${#notices[@]}" ] || fail "licenses/ has other files than the notices"
grep -q '](../include/vtfltsim/VTFltSim.h)' "$package/docs/simulator-api.md" || fail "a link was not bent"
mkdir "$work/broken"
cp -r "$work/tree-one" "$work/broken/tree"
rm "$work/broken/tree/SECURITY.md"
python3 -B "$source/tools/package/make_package.py" "$work/broken/tree" "$objcopy" "$work/broken/$name.zip" 2>/dev/null &&
    fail "a package with a broken link was made"
! grep -rlaF "$source" "$package" || fail "the package names the folder that it was built in"

run() {
    local expected=$1 program=$2
    cp "$package"/bin/VTFlt*.dll "$(dirname "$program")/"
    local out
    out=$("$emulator" "$program" | tr -d '\r') || fail "$(basename "$program") failed"
    [ "$out" = "$expected" ] || fail "$(basename "$program") said: $out"
}

cmake -G Ninja -S "$source/tests/consumer" -B "$work/cmake" -DCMAKE_TOOLCHAIN_FILE="$source/cmake/mingw-w64.cmake" \
    -DVTFltMgr_DIR="$package/lib/cmake/VTFltMgr" -DCMAKE_EXE_LINKER_FLAGS=-static >"$work/cmake.log"
cmake --build "$work/cmake" >>"$work/cmake.log" || fail "the CMake project does not build: $(tail -n 20 "$work/cmake.log")"
run "VTFltMgr $version: 1 application" "$work/cmake/consumer_c.exe"
run "VTFltMgr $version: block 3, 1" "$work/cmake/consumer_cpp.exe"

mkdir "$work/pkgconfig"
flags() {
    PKG_CONFIG_LIBDIR="$package/lib/pkgconfig" pkg-config "$@" vtfltmgr vtfltsim
}
[ "$(PKG_CONFIG_LIBDIR="$package/lib/pkgconfig" pkg-config --modversion vtfltmgr)" = "$version" ] ||
    fail "pkg-config gives another version"
# shellcheck disable=SC2046 # several flags
x86_64-w64-mingw32-gcc-posix -static -o "$work/pkgconfig/consumer_c.exe" "$source/tests/consumer/consumer.c" \
    $(flags --cflags --libs)
# shellcheck disable=SC2046
x86_64-w64-mingw32-g++-posix -std=c++17 -static -o "$work/pkgconfig/consumer_cpp.exe" \
    "$source/tests/consumer/consumer.cpp" $(flags --cflags --libs)
run "VTFltMgr $version: 1 application" "$work/pkgconfig/consumer_c.exe"
run "VTFltMgr $version: block 3, 1" "$work/pkgconfig/consumer_cpp.exe"
for tool in vtbackup vtfltctl vtlog vtfltsim; do
    out=$("$emulator" "$package/bin/$tool.exe" --version | tr -d '\r') || fail "$tool --version failed"
    [ "$out" = "$tool $version" ] || fail "$tool --version said: $out"
done
echo "check_package: $name.zip is whole, the same twice, and usable"
