#!/usr/bin/env bash
# bare_debian.sh SOURCE WORK
# Builds the Debian packages of the tree at SOURCE, has lintian read them, and installs them in a Debian
# that has nothing but its essential packages, where their own test is run. There the section "Linking
# it" of the README is followed, too, word for word. Everything is done inside WORK, which is emptied
# first. As root, since it changes into the root of that Debian.
#
# Where no such root can be made (no chroot, no mirror) the packages are unpacked side by side and tested
# with paths that lead there; README and dependencies stay untried, and that is said.
set -euo pipefail

source=$(realpath -- "$1") work=$(realpath -m -- "$2")
release=bookworm
root=$work/root

fail() {
    printf 'bare_debian: %s\n' "$*" >&2
    exit 1
}
say() { printf -- '\n-- debian: %s\n' "$*"; }

# The files of the tree, without what was built in it.
copy_tree() {
    mkdir -p "$1"
    (cd "$source" && { git ls-files -co --exclude-standard -z 2>/dev/null ||
        find . \( -path './.?*' -o -path ./build \) -prune -o -type f -print0; } |
        tar --null -T - --ignore-failed-read -cf -) | tar -C "$1" -xf -
}

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")

build_packages() {
    local tree=$work/libtarn-$version
    copy_tree "$tree"
    tar -C "$work" --sort=name --mtime=@0 --owner=0 --group=0 --numeric-owner \
        -cJf "$work/libtarn_$version.orig.tar.xz" "libtarn-$version"
    cp -R "$tree/packaging/debian" "$tree/debian"
    # Debhelper has a home of its own, and a compiler cache would be there.
    if command -v ccache >/dev/null; then
        CCACHE_DIR=$(ccache -k cache_dir)
        export CCACHE_DIR
    fi
    (cd "$tree" && dpkg-buildpackage -us -uc -j"${CMAKE_BUILD_PARALLEL_LEVEL:-2}") \
        >"$work/build.log" 2>&1 || {
        tail -n 30 "$work/build.log" | cut -c1-300
        fail "dpkg-buildpackage failed; all of it is in $work/build.log"
    }
    (cd "$work" && ls -- *.deb)
}

inside() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C "$@"; }

make_root() {
    # Kept: the lists of packages, for what is installed there later.
    mmdebstrap --variant=minbase --skip=cleanup/apt/lists --quiet "$release" "$root" \
        2>"$work/root.log" && inside true 2>>"$work/root.log" || return 1
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    mkdir "$root/packages"
    cp "$work"/*.deb "$root/packages/"
}

# Runtime packages alone, and nothing that they do not ask for.
check_bare_install() {
    say "the library and the tools in a bare Debian"
    inside sh -c 'dpkg -i /packages/libtarn0.0_*.deb /packages/tarn-tools_*.deb' >"$work/install.log" ||
        fail "not installed, see $work/install.log"
    inside tarn --version
    inside tarn-busd --version
    ! inside test -e /usr/include/tarn || fail "headers in a package that is no -dev"
    # Back to where it was, for what follows.
    inside dpkg -P tarn-tools libtarn0.0 >>"$work/install.log"
}

# Lines of the README: the commands (indented) or the CMake code of the section "Linking it".
linking() {
    awk -v what="$1" '
        /^## /                          { section = $0 == "## Linking it" }
        !section                        { next }
        /^```/                          { code = $0 == "```cmake"; next }
        what == "cmake" && code         { print }
        what == "commands" && /^    /   { print substr($0, 5) }' "$source/README.md"
}

# expect_no_bus PROGRAM: it starts, and says that there is no bus.
expect_no_bus() {
    local said status=0
    said=$(inside env UBUS_SOCKET=/no-bus "$1" 2>&1) || status=$?
    [[ $status -eq 1 && $said == *"annot connect"* ]] || fail "$1: status $status, '$said'"
}

check_readme() {
    local cache="" commands
    say "README, Linking it"
    # In the same place as here, and with the compiler cache of this machine, if there is one: the same
    # objects as in other builds.
    copy_tree "$root$source"
    if command -v ccache >/dev/null; then
        cache=$(ccache -k cache_dir)
        mkdir -p "$root/ccache" "$cache"
        mount --bind "$cache" "$root/ccache" && bound=1 || cache=
    fi
    sed '1,/^```cpp$/d;/^```$/,$d' <(sed -n '/^<!-- examples\/hello.cpp -->$/,$p' "$source/README.md") \
        >"$root$source/program.cpp"
    {
        echo 'cmake_minimum_required(VERSION 3.16)'
        echo 'project(program LANGUAGES CXX)'
        echo 'add_executable(program program.cpp)'
        linking cmake
    } >"$root$source/CMakeLists.program"
    commands=$(linking commands)
    [[ $commands == *"cmake --install"* && $commands == *pkg-config* ]] || fail "no commands in README"
    printf '%s\n' "$commands"
    inside env ${cache:+CCACHE_DIR=/ccache CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache} \
        DEBIAN_FRONTEND=noninteractive CMAKE_BUILD_PARALLEL_LEVEL="${CMAKE_BUILD_PARALLEL_LEVEL:-2}" \
        bash -ec "cd '$source'
            ${cache:+apt-get install -y -q --no-install-recommends ccache}
            $commands" >"$work/readme.log" 2>&1 || {
        tail -n 40 "$work/readme.log"
        fail "a command of the README failed; all of it is in $work/readme.log"
    }
    expect_no_bus "$source/a.out"
    inside bash -ec "mkdir /program && cd /program && cp '$source/program.cpp' .
        cp '$source/CMakeLists.program' CMakeLists.txt && cmake -G Ninja . && cmake --build ." \
        >>"$work/readme.log" 2>&1 || {
        tail -n 40 "$work/readme.log"
        fail "the CMake code of the README does not work"
    }
    expect_no_bus /program/program
    inside sh -c 'rm -r /usr/local/lib/*tarn* /usr/local/lib/*/tarn* /usr/local/include/tarn && ldconfig'
}

check_development() {
    say "a program compiled and run with the packages"
    inside sh -c 'dpkg -i /packages/*_'"$(dpkg --print-architecture)"'.deb' >>"$work/install.log" ||
        fail "not installed, see $work/install.log"
    inside sh -c "cd '$source' && packaging/debian/tests/build-and-call"
}

check_unpacked() {
    local deb
    say "no bare Debian to be had ($(tail -n 1 "$work/root.log")): unpacked instead"
    echo "not tried here: the dependencies of the packages, and the README"
    for deb in "$work"/*.deb; do
        dpkg -x "$deb" "$work/unpacked"
    done
    deb=$work/unpacked/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
    (cd "$source" && env PATH="$work/unpacked/usr/bin:$PATH" LD_LIBRARY_PATH="$deb" \
        PKG_CONFIG_PATH="$deb/pkgconfig" packaging/debian/tests/build-and-call)
}

[[ $(id -u) -eq 0 ]] || fail "this needs root, to change into the root of another Debian"
bound=
unbind() { [[ -z $bound ]] || umount "$root/ccache"; }
trap unbind EXIT
# Nothing of an earlier run is removed through a mount that it left.
! mountpoint -q "$root/ccache" 2>/dev/null || umount "$root/ccache"
rm -rf --one-file-system -- "$work"
mkdir -p "$work"

say "packages"
"$source/packaging/debian/symbols.sh" "$source/tests/exports/exported.txt" |
    diff -u "$source/packaging/debian/libtarn0.0.symbols" - || fail "the list of symbols is renewed by ./dev exports"
build_packages
say "lintian"
# No bug of Debian asks for these packages, which are not in its archive.
lintian --allow-root --fail-on error,warning --tag-display-limit 0 \
    --suppress-tags initial-upload-closes-no-bugs "$work"/*.changes
say "a bare Debian"
if make_root; then
    check_bare_install
    check_readme
    check_development
else
    check_unpacked
fi
say "passed"
