#!/usr/bin/env bash
# reproducible_check.sh SOURCE BUILD WORK
# BUILD is the preset demo, built in SOURCE. Builds it once more in a folder of another name and depth, and
# compares what both install, byte for byte. Without a compiler cache, which could hand the objects of the
# one to the other. Everything is done inside WORK, which is emptied first.
set -euo pipefail

source=$(realpath -- "$1") build=$(realpath -- "$2") work=$(realpath -m -- "$3")
tree=$work/another/and/deeper

rm -rf -- "$work"
mkdir -p "$tree"
(cd "$source" && { git ls-files -co --exclude-standard -z 2>/dev/null ||
    find . \( -path './.?*' -o -path ./build \) -prune -o -type f -print0; } |
    tar --null -T - --ignore-failed-read -cf -) | tar -C "$tree" -xf -
cd "$tree"
cmake --preset demo >/dev/null
CCACHE_DISABLE=1 cmake --build --preset demo --target tarn tarn_loops tarn_testing tarn_cli tarn-busd
cmake --install build/demo --prefix "$work/second" >/dev/null
cmake --install "$build" --prefix "$work/first" >/dev/null
diff -r "$work/first" "$work/second" || {
    echo "reproducible: two builds of the same sources differ" >&2
    exit 1
}
cd "$work/first"
sha256sum lib*/*.so.*.*.* lib*/*.a bin/*
echo "both builds install the same files, byte for byte"
