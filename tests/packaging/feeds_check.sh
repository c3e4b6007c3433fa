#!/usr/bin/env bash
# feeds_check.sh SOURCE BUILD WORK
# The packages for OpenWrt and Yocto, as far as that goes without their build systems. From the release in
# BUILD, which has the tool, OpenWrt's steps are run for real, between stubs of its makefiles, and the
# recipe's file lists are applied: every installed file has to be in one package. The options of both are
# known to CMake. Everything is done inside WORK, which is emptied first.
set -euo pipefail

source=$(realpath -- "$1") build=$(realpath -- "$2") work=$(realpath -m -- "$3")
here=$source/tests/packaging

fail() {
    printf 'feeds: %s\n' "$*" >&2
    exit 1
}
say() { printf -- '\n-- feeds: %s\n' "$*"; }

# A libubus and a libubox that CMake finds. They are never linked.
fake_bus() {
    mkdir -p "$work/bus/include/libubox" "$work/bus/lib"
    touch "$work/bus/include/libubox/uloop.h" "$work/bus/include/libubus.h" \
        "$work/bus/lib/libubox.so" "$work/bus/lib/libubus.so"
}

# configures NAME OPTION...: CMake takes these options, and knows each of them.
configures() {
    cmake -G Ninja -S "$source" -B "$work/$1" -DCMAKE_PREFIX_PATH="$work/bus" "${@:2}" \
        >"$work/$1.log" 2>&1 || {
        tail -n 30 "$work/$1.log"
        fail "$1: CMake refuses the options"
    }
    ! grep -A9 -F 'Manually-specified variables were not used' "$work/$1.log" ||
        fail "$1: CMake does not know an option"
}

# files FOLDER: what is in it, folders left out.
files() { (cd "$1" && find . ! -type d | sort); }

check_openwrt() {
    local stubs=$work/openwrt make options package
    say "OpenWrt: the steps of the Makefile"
    cp -R "$here/openwrt" "$stubs"
    make=(make --no-print-directory -s -f "$source/packaging/openwrt/libtarn/Makefile" TOPDIR="$stubs"
        PKG_INSTALL_DIR="$work/installed" PKG_STAGING="$stubs/staging" CONFIG_PACKAGE_tarn-tools=y)
    mkdir -p "$stubs/staging"/{dev,libtarn,tarn-tools}
    "${make[@]}" install-dev install-libtarn install-tarn-tools
    "${make[@]}" describe-libtarn describe-tarn-tools | tee "$stubs/described.txt"
    grep -q "^package=libtarn version=$version licence=MIT .*+libubox +libubus +libstdcpp.* abi=${version%.*}$" \
        "$stubs/described.txt" || fail "the package libtarn is not described as it is"

    diff -u <(printf '%s\n' "./usr/lib/libtarn.so.${version%.*}" "./usr/lib/libtarn.so.$version") \
        <(files "$stubs/staging/libtarn") || fail "the package libtarn is not the library"
    diff -u <(echo ./usr/bin/tarn) <(files "$stubs/staging/tarn-tools") ||
        fail "the package tarn-tools is not the tool"
    # Manual and completion have no place on a router, the bundled daemon none beside ubusd.
    diff -u <(files "$work/installed" | grep -vE '/share/|bin/tarn-busd$') \
        <(for package in dev libtarn tarn-tools; do files "$stubs/staging/$package"; done | sort -u) ||
        fail "the packages are not what CMake installs"

    say "OpenWrt: a program built with the headers, run with the library"
    # As there: one prefix for all .pc files, whatever they say themselves.
    # shellcheck disable=SC2046
    g++ -std=c++17 -o "$stubs/small" "$here/small.cpp" \
        $(PKG_CONFIG_PATH=$stubs/staging/dev/usr/lib/pkgconfig pkg-config \
            --define-variable=prefix="$stubs/staging/dev/usr" --cflags --libs tarn-testing tarn-loops)
    LD_LIBRARY_PATH=$stubs/staging/libtarn/usr/lib "$stubs/small"

    say "OpenWrt: the options"
    mapfile -t options < <("${make[@]}" cmake-options)
    printf '%s\n' "${options[*]}"
    configures openwrt-configured "${options[@]}"
}

check_yocto() {
    local option options
    say "Yocto: variables, licence, files"
    python3 "$here/recipe.py" "$source" "$source/packaging/yocto/libtarn/libtarn_$version.bb" \
        "$work/installed" >"$work/recipe-options.txt"
    while IFS= read -r option; do
        read -ra options <<<"$option"
        printf '%s\n' "$option"
        configures yocto-configured --fresh "${options[@]}"
    done <"$work/recipe-options.txt"
}

rm -rf -- "$work"
mkdir -p "$work"
version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
fake_bus
DESTDIR=$work/destination cmake --install "$build" --prefix /usr >/dev/null
mv "$work/destination" "$work/installed"
check_openwrt
check_yocto
say "passed"
