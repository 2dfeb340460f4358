#!/bin/bash
# Install check: installs a build into a staging directory (DESTDIR) and builds the C example
# (host/example.c) from the installed files alone, once through pkg-config and once through the
# CMake package, natively and for 32-bit ARM (a second, library-only cross build). The native
# pkg-config build then records, plays back and finds one channel on a disk formatted by the
# installed recstore tool inside the disk rig (the rig test program of the example, pointed at the
# installed programs).
#
#   check-install.sh SOURCE_DIR BUILD_DIR
#
# Work files go to BUILD_DIR/install-check (the ARM build tree stays there for the next run).
# Exit status: 0 all passed, 77 the rig part was skipped (not root), anything else a failure.
set -euo pipefail

[ $# -eq 2 ] || { echo "usage: $0 SOURCE_DIR BUILD_DIR" >&2; exit 2; }
src=$(cd "$1" && pwd)
build=$(cd "$2" && pwd)
work=$build/install-check
jobs=${JOBS:-2}
arm_toolchain=$src/cmake/arm-linux-gnueabihf.cmake
example=$src/host/example.c

say() { echo "install-check: $*"; }
fail() { echo "install-check: FAIL: $*" >&2; exit 1; }

# Installs BUILD into a fresh STAGE with the prefix /usr and checks that every file is there.
install_into() { # BUILD STAGE WITH_TOOL
    rm -rf "$2"
    DESTDIR=$2 cmake --install "$1" --prefix /usr >/dev/null || fail "cmake --install $1"
    local expected=(usr/lib/librecstore.so usr/lib/librecstore.so.0 usr/lib/librecstore_host.a
                    usr/include/recstore.h usr/include/recstore_host.h
                    usr/lib/pkgconfig/recstore.pc usr/lib/cmake/recstore/recstoreConfig.cmake
                    usr/lib/cmake/recstore/recstoreConfigVersion.cmake
                    usr/lib/cmake/recstore/recstoreTargets.cmake)
    [ "$3" = tool ] && expected+=(usr/bin/recstore)
    local f
    for f in "${expected[@]}"; do
        [ -e "$2/$f" ] || fail "$f is not installed"
    done
    if ! [ -L "$2/usr/lib/librecstore.so" ] || ! [ -L "$2/usr/lib/librecstore.so.0" ]; then
        fail "the library's version links are not symbolic links"
    fi
    [ "$(readlink "$2/usr/lib/librecstore.so.0")" = "librecstore.so.$(version_of "$2")" ] ||
        fail "librecstore.so.0 does not point at the installed version"
    say "installed into $2: $(cd "$2" && find . -type f -o -type l | sort | tr '\n' ' ')"
}

version_of() { # STAGE
    sed -n 's/^Version: //p' "$1/usr/lib/pkgconfig/recstore.pc"
}

# The example through pkg-config, with the staging tree as the sysroot.
build_with_pkg_config() { # STAGE CC OUT
    local flags
    flags=$(PKG_CONFIG_SYSROOT_DIR=$1 PKG_CONFIG_LIBDIR=$1/usr/lib/pkgconfig PKG_CONFIG_PATH='' \
        pkg-config --cflags --libs recstore) || fail "pkg-config does not find recstore in $1"
    case " $flags " in *" -I$1/usr/include "*) ;; *) fail "pkg-config flags miss the staged include directory: $flags" ;; esac
    # shellcheck disable=SC2086  # the flags are words
    "$2" -Wall -Wextra -Werror "$example" $flags \
        -Wl,--whole-archive -lrecstore_host -Wl,--no-whole-archive -rdynamic -o "$3" ||
        fail "$2: the example does not build through pkg-config"
    say "built $3 through pkg-config ($flags)"
}

# The example through find_package(recstore CONFIG).
build_with_cmake_package() { # STAGE OUT_DIR [CMAKE ARGS...]
    local stage=$1 out=$2
    shift 2
    rm -rf "$out"
    cmake -S "$src/tests/install" -B "$out" -DCMAKE_PREFIX_PATH="$stage/usr" \
        -DRECSTORE_EXAMPLE_SOURCE="$example" -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" "$@" \
        >"$out.log" 2>&1 || { cat "$out.log" >&2; fail "the CMake package is not found in $stage"; }
    grep -q "$stage/usr/lib/cmake/recstore" "$out/CMakeCache.txt" ||
        fail "find_package took recstore from elsewhere than $stage"
    cmake --build "$out" >>"$out.log" 2>&1 ||
        { cat "$out.log" >&2; fail "the example does not build through the CMake package"; }
    say "built $out/example through find_package"
}

# The machine the binary is for, as readelf names it.
machine_of() { # FILE
    readelf -h "$1" | sed -n 's/^ *Machine: *//p'
}

mkdir -p "$work"

# --- native ------------------------------------------------------------------------------------
stage=$work/stage
install_into "$build" "$stage" tool
build_with_pkg_config "$stage" "${CC:-cc}" "$work/example-pc"
build_with_cmake_package "$stage" "$work/example-cmake"
for program in "$work/example-pc" "$work/example-cmake/example"; do
    status=0
    LD_LIBRARY_PATH=$stage/usr/lib "$program" >"$work/usage.txt" 2>&1 || status=$?
    if [ "$status" -ne 2 ] || ! grep -q "^usage: " "$work/usage.txt"; then
        fail "$program without a disk: status $status, $(cat "$work/usage.txt")"
    fi
    ldd_out=$(LD_LIBRARY_PATH=$stage/usr/lib ldd "$program")
    case "$ldd_out" in *"$stage/usr/lib/librecstore.so.0"*) ;; *) fail "$program does not load the installed library: $ldd_out" ;; esac
done

# --- 32-bit ARM --------------------------------------------------------------------------------
arm_build=$work/arm-build
arm_stage=$work/arm-stage
say "cross build of the library for ARM in $arm_build"
cmake -S "$src" -B "$arm_build" -DCMAKE_TOOLCHAIN_FILE="$arm_toolchain" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRECSTORE_BUILD_TESTS=OFF -DRECSTORE_BUILD_TOOLS=OFF \
    >"$work/arm-configure.log" 2>&1 || { cat "$work/arm-configure.log" >&2; fail "ARM configure"; }
cmake --build "$arm_build" -j "$jobs" >"$work/arm-build.log" 2>&1 ||
    { tail -50 "$work/arm-build.log" >&2; fail "ARM build"; }
install_into "$arm_build" "$arm_stage" no-tool
build_with_pkg_config "$arm_stage" arm-linux-gnueabihf-gcc "$work/example-arm-pc"
build_with_cmake_package "$arm_stage" "$work/example-arm-cmake" \
    -DCMAKE_TOOLCHAIN_FILE="$arm_toolchain"
for program in "$work/example-arm-pc" "$work/example-arm-cmake/example"; do
    [ "$(machine_of "$program")" = ARM ] || fail "$program is not an ARM program"
    status=0
    qemu-arm -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH="$arm_stage/usr/lib" "$program" \
        >"$work/usage.txt" 2>&1 || status=$?
    if [ "$status" -ne 2 ] || ! grep -q "^usage: " "$work/usage.txt"; then
        fail "$program under qemu-arm: status $status, $(cat "$work/usage.txt")"
    fi
done
say "ARM programs built from the installed tree start under qemu-arm"

# --- the installed programs on a rig disk --------------------------------------------------------
say "the pkg-config example and the installed tool on a freshly formatted rig disk"
status=0
"$src/tests/rig/rig-run" env LD_LIBRARY_PATH="$stage/usr/lib" \
    RECSTORE_EXAMPLE_PROGRAM="$work/example-pc" RECSTORE_TOOL_PROGRAM="$stage/usr/bin/recstore" \
    "$build/rig_test_example" || status=$?
[ "$status" -eq 0 ] || { [ "$status" -eq 77 ] && say "rig part skipped (not root)"; exit "$status"; }
say "all passed"
