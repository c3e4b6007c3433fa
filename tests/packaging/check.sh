#!/usr/bin/env bash
# check.sh SOURCE WORK [cmake option...]
# Installs the library at SOURCE, shared and static, and proves what is installed by building and
# running programs against it. Everything is done inside WORK, which is emptied first.
set -euo pipefail

source=$(realpath -- "$1") work=$(realpath -m -- "$2") options=("${@:3}")
here=$source/tests/packaging

fail() {
    printf 'packaging: %s\n' "$*" >&2
    exit 1
}
say() { printf -- '\n-- packaging: %s\n' "$*"; }

# run PROGRAM: where there surely is no bus.
run() { UBUS_SOCKET=$work/no-such-socket "$@"; }

# consumer NAME [cmake option...]: one of the CMake projects beside this script.
consumer() {
    cmake -G Ninja -S "$here/$1" -B "$work/$kind/$1" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON "${@:2}" >"$work/$kind/$1.log" || {
        cat "$work/$kind/$1.log"
        return 1
    }
    cmake --build "$work/$kind/$1"
    run "$work/$kind/$1/consumer"
}

# configure_loops NAME [cmake option...]: the examples on loops of other libraries, in the folder NAME.
configure_loops() {
    cmake -G Ninja -S "$here/cmake-loops" -B "$work/$kind/$1" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_PREFIX_PATH="$prefix;$bus_prefix" -DTARN_EXAMPLES="$source/examples/loops" \
        "${@:2}" >"$work/$kind/$1.log" 2>&1
}

# expect_no_bus PROGRAM: an example says that there is no bus, and fails.
expect_no_bus() {
    local said status=0
    said=$(run "$@" 2>&1) || status=$?
    [[ $status -eq 1 && $said == "cannot connect: "* ]] || fail "$1: status $status, '$said'"
}

# Each adapter through the CMake package and through pkg-config, for the libraries that are here.
check_loops() {
    local program component package
    say "$kind: components for loops of other libraries"
    configure_loops cmake-loops || {
        cat "$work/$kind/cmake-loops.log"
        return 1
    }
    cmake --build "$work/$kind/cmake-loops"
    if configure_loops refused -DTARN_WANTED=loops_none; then
        fail "a component that does not exist was found"
    fi
    grep -F 'tarn has no component loops_none; it has ext, loops, ' "$work/$kind/refused.log" ||
        fail "it is not said which components there are"
    while read -r program component; do
        expect_no_bus "$work/$kind/cmake-loops/$program"
        package=tarn-${component//_/-}
        say "$kind: pkg-config, $package for $program"
        # Unquoted: these are lists of options.
        # shellcheck disable=SC2046
        g++ -std=c++17 -Wall -Wextra -Werror \
            -o "$work/$kind/$program" $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig $pkg_config --cflags "$package") \
            "$source/examples/loops/$program.cpp" $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig $pkg_config --libs "$package")
        expect_no_bus env LD_LIBRARY_PATH="$prefix/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
            "$work/$kind/$program"
    done <"$work/$kind/cmake-loops/programs.txt"
}

# The tutorial as its reader has it: a project of its own, and its test.
check_tutorial() {
    say "$kind: the tutorial"
    cmake -G Ninja -S "$source/examples/tutorial" -B "$work/$kind/tutorial" \
        -DCMAKE_PREFIX_PATH="$prefix;$bus_prefix" >"$work/$kind/tutorial.log" || {
        cat "$work/$kind/tutorial.log"
        return 1
    }
    cmake --build "$work/$kind/tutorial"
    ctest --test-dir "$work/$kind/tutorial" --output-on-failure --no-tests=error
}

# check_directories NAME LIBDIR INCLUDEDIR: what was built, installed into these folders, absolute ones or
# relative to the prefix. It is found by the CMake package, all components of it, and by pkg-config.
check_directories() {
    local name=$1 odd=$work/$kind/$1-prefix libdir=$2 includedir=$3 flags
    say "$kind: directories $name"
    cmake -S "$source" -B "$work/$kind/build" -DCMAKE_INSTALL_PREFIX="$odd" \
        -DCMAKE_INSTALL_LIBDIR="$libdir" -DCMAKE_INSTALL_INCLUDEDIR="$includedir" >/dev/null
    cmake --install "$work/$kind/build" >/dev/null
    [[ $libdir == /* ]] || libdir=$odd/$libdir
    [[ $includedir == /* ]] || includedir=$odd/$includedir
    [[ -f $includedir/tarn/tarn.h && -f $libdir/cmake/tarn/tarnConfig.cmake ]] ||
        fail "not installed in $libdir and $includedir"
    cmake -G Ninja -S "$here/cmake-components" -B "$work/$kind/$name" \
        -Dtarn_DIR="$libdir/cmake/tarn" -DCMAKE_PREFIX_PATH="$bus_prefix" \
        -DTARN_WANTED="ext;loops;testing;loops_conformance" >"$work/$kind/$name.log" || {
        cat "$work/$kind/$name.log"
        return 1
    }
    cmake --build "$work/$kind/$name"
    "$work/$kind/$name/consumer"
    flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig $pkg_config --cflags --libs tarn-testing tarn-loops)
    # Unquoted: a list of options.
    # shellcheck disable=SC2086
    g++ -std=c++17 -o "$work/$kind/$name/by-pkg-config" "$here/small.cpp" $flags
    LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$work/$kind/$name/by-pkg-config"
}

# What each component installs, in a tree of its own.
check_components() {
    local tree=$work/$kind/components component
    say "$kind: install components"
    for component in runtime development; do
        cmake --install "$work/$kind/build" --component "$component" --prefix "$tree/$component" \
            >/dev/null
        (cd "$tree/$component" && find . ! -type d | sort) >"$tree/$component.txt"
    done
    diff -u <(printf '%s\n' ./lib/libtarn.so.0.0 ./lib/libtarn.so.0.0.1) "$tree/runtime.txt" ||
        fail "the component runtime is not the library and its soname"
    sort "$tree"/*.txt | diff -u - <(cd "$prefix" && find . ! -type d | sort) ||
        fail "the components together are not what is installed without a component"
}

check_kind() {
    local shared pkg_config=pkg-config prefix=$work/$kind/prefix strict=ON
    [[ $kind == shared ]] && shared=ON || shared=OFF
    # Warnings of a release are the same in both; with the options of ./dev demo its objects are cached.
    [[ $kind == static ]] || strict=OFF

    say "$kind: install"
    cmake -G Ninja -S "$source" -B "$work/$kind/build" -DCMAKE_BUILD_TYPE=Release \
        -DBUILD_SHARED_LIBS=$shared -DTARN_WERROR=$strict -DTARN_TESTS=OFF -DTARN_EXAMPLES=OFF \
        -DTARN_TOOLS=OFF -DCMAKE_INSTALL_LIBDIR=lib "${options[@]}"
    cmake --build "$work/$kind/build"
    cmake --install "$work/$kind/build" --prefix "$work/$kind/first-prefix"
    # Whatever remembered the prefix would no longer find it.
    mv "$work/$kind/first-prefix" "$prefix"

    say "$kind: what is installed"
    if [[ $kind == shared ]]; then
        [[ -f $prefix/lib/libtarn.so.0.0.1 && ! -L $prefix/lib/libtarn.so.0.0.1 ]] ||
            fail "lib/libtarn.so.0.0.1 is not there"
        [[ $(readlink "$prefix/lib/libtarn.so.0.0") == libtarn.so.0.0.1 ]] ||
            fail "lib/libtarn.so.0.0 does not lead to libtarn.so.0.0.1"
        readelf -d "$prefix/lib/libtarn.so" | grep -F 'soname: [libtarn.so.0.0]' ||
            fail "the soname is not libtarn.so.0.0"
    fi
    (for include in "$source"/include "$source"/loops/{,*/}include "$source"/loops/conformance \
        "$source"/testing/include; do
        (cd "$include" && find . -name '*.h')
    done) | sort |
        diff -u - <(cd "$prefix/include" && find . -name '*.h' | sort) ||
        fail "the installed headers are not the public headers"
    if grep -rF -e "$source/src" -e "$work" "$prefix/lib/cmake" "$prefix/lib/pkgconfig" |
        grep -vE -e '-L[^ ]+ -lubus'; then
        fail "an installed file names a folder of this machine"
    fi

    say "$kind: find_package"
    consumer cmake-package -DCMAKE_PREFIX_PATH="$prefix;$bus_prefix"

    say "$kind: pkg-config"
    [[ $kind == shared ]] || pkg_config="pkg-config --static"
    cp -R "$here/pkgconfig" "$here/main.cpp" "$work/$kind/"
    PKG_CONFIG_PATH=$prefix/lib/pkgconfig make -C "$work/$kind/pkgconfig" \
        PKG_CONFIG="$pkg_config" CPPFLAGS="-MD -MF used.d"
    run env LD_LIBRARY_PATH="$prefix/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
        "$work/$kind/pkgconfig/consumer"
    if grep -E '(^|[ /])(libubox/|libubus)' "$work/$kind/pkgconfig/used.d"; then
        fail "a program that uses libtarn includes a header of libubox or libubus"
    fi

    [[ $kind == static ]] || check_components
    check_directories unusual lib/deeper/still include/tarn-0
    check_directories absolute "$outside/$kind/libraries" "$outside/$kind/headers"

    # The adapters are headers, in both kinds the same.
    [[ $kind == static ]] || check_loops
    [[ $kind == static ]] || check_tutorial

    say "$kind: add_subdirectory"
    consumer subdirectory -DTARN_SOURCE="$source" -DBUILD_SHARED_LIBS=$shared "${options[@]}"
}

# With the system's bus in a place of its own, its users are told of it the way we were, and the
# linker and the loader are told where a system that has it installed would tell them itself.
bus_prefix=
for option in "${options[@]}"; do
    [[ $option == -DCMAKE_PREFIX_PATH=* ]] && bus_prefix=${option#*=}
done
if [[ -n $bus_prefix ]]; then
    bus_libraries=$(dirname "$(find -L "$bus_prefix"/lib* -maxdepth 2 -name libubus.so -print -quit)")
    export LD_LIBRARY_PATH=$bus_libraries${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
fi

rm -rf -- "$work"
# CMake refuses an absolute folder for headers that is inside the source tree.
outside=$(mktemp -d)
trap 'rm -rf -- "$outside"' EXIT
for kind in shared static; do
    mkdir -p "$work/$kind"
    check_kind
done

say "the tool, and what it needs"
# configure_tools NAME [cmake option...]: only configured, in the folder NAME.
configure_tools() {
    cmake -G Ninja -S "$source" -B "$work/$1" -DTARN_TESTS=OFF -DTARN_LOOPS= "${options[@]}" \
        "${@:2}" >"$work/$1.log" 2>&1
}
has_tool() { cmake --build "$work/$1" --target help | grep -q '^tarn_cli: '; }
configure_tools tool-alone -DTARN_EXAMPLES=OFF -DTARN_TOOLS=ON || fail "no tool without the examples"
has_tool tool-alone || fail "a tool that is asked for is left out"
configure_tools without-json -DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON ||
    fail "nothing is built without nlohmann-json"
grep -F "nlohmann-json (Debian: nlohmann-json3-dev) is not found" "$work/without-json.log" ||
    fail "it is not said that the tool is left out"
! has_tool without-json || fail "there is a tool without nlohmann-json"
if configure_tools tool-refused -DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON -DTARN_TOOLS=ON; then
    fail "a tool that is asked for is left out"
fi

say "in the tree of an application, that chooses the kind of libraries"
cmake -G Ninja -S "$here/subdirectory" -B "$work/unchosen" -DTARN_SOURCE="$source" \
    -DTARN_UNCHOSEN=ON "${options[@]}" >"$work/unchosen.log" || {
    cat "$work/unchosen.log"
    exit 1
}

if [[ -n $bus_prefix ]]; then
    say "pkg-config files of libubus and libubox are named where there are some"
    mkdir -p "$work/bus-pc"
    for library in ubus ubox; do
        printf 'libdir=%s\nName: %s\nDescription: of the bus\nVersion: 1\nLibs: -l%s\n' \
            "$bus_libraries" "$library" "$library" >"$work/bus-pc/lib$library.pc"
    done
    PKG_CONFIG_PATH=$work/bus-pc configure_tools with-bus-pc -DTARN_TOOLS=OFF
    grep -x 'Requires.private: libubus, libubox' "$work/with-bus-pc/tarn.pc" ||
        fail "tarn.pc does not require libubus and libubox"
fi

say "a release that breaks the interface is refused"
cat >"$work/refuse.cmake" <<'CMAKE'
foreach(wanted 0.1 1.0)
    set(PACKAGE_FIND_VERSION ${wanted})
    string(REPLACE "." ";" parts ${wanted})
    list(GET parts 0 PACKAGE_FIND_VERSION_MAJOR)
    list(GET parts 1 PACKAGE_FIND_VERSION_MINOR)
    set(PACKAGE_VERSION_COMPATIBLE TRUE)
    include(${version_file})
    if(PACKAGE_VERSION_COMPATIBLE)
        message(FATAL_ERROR "version ${wanted} is accepted")
    endif()
endforeach()
CMAKE
cmake -Dversion_file="$work/shared/prefix/lib/cmake/tarn/tarnConfigVersion.cmake" \
    -P "$work/refuse.cmake"
say "passed"
