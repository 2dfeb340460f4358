#!/bin/sh
# SPDX-License-Identifier: MIT
# Source hygiene of the tree: every C and C++ source is formatted with the committed
# .clang-format (clang-format --dry-run -Werror), and every source, build and script file carries
# the licence's SPDX line near its top.
#
#   check_sources.sh SOURCE_DIR format CLANG_FORMAT
#   check_sources.sh SOURCE_DIR spdx
#
# Exits 0 when all is well, 1 with the offending files listed otherwise.
set -u
src=$1
what=$2
cd "$src" || exit 1

# The C and C++ sources of the project (build trees and fuzz seeds excluded).
c_sources() {
    find src include host tools bench tests -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) \
        -not -path '*/seeds/*' | sort
}

# Everything else that carries the SPDX line: build files and scripts.
other_sources() {
    find . -path ./build -prune -o -path ./.git -prune -o -type f \
        \( -name CMakeLists.txt -o -name '*.cmake' -o -name '*.sh' -o -name '*.in' -o -name '*.map' \
           -o -name '*.bash-completion' \) -print | sed 's|^\./||' | grep -v '^build' | sort
    for f in scripts/* tests/rig/rig-run tests/rig/rig-inner tests/rig/udevstart tests/rig/partprobe \
        .ci/run; do
        [ -f "$f" ] && echo "$f"
    done
}

count=$(c_sources | wc -l)
if [ "$count" -lt 50 ]; then
    echo "check_sources: only $count C/C++ sources found under $src: wrong directory?" >&2
    exit 1
fi

case "$what" in
    format)
        clang_format=$3
        # shellcheck disable=SC2046
        if ! out=$("$clang_format" --dry-run -Werror $(c_sources) 2>&1); then
            echo "$out" | grep 'error:' | cut -d: -f1 | sort -u | sed 's/^/not formatted: /'
            echo "check_sources: run clang-format -i on the files above" >&2
            exit 1
        fi
        echo "check_sources: $count C/C++ sources formatted"
        ;;
    spdx)
        bad=0
        for f in $(c_sources) $(other_sources); do
            if ! head -n 3 "$f" | grep -q 'SPDX-License-Identifier: MIT'; then
                echo "no SPDX line: $f"
                bad=1
            fi
        done
        [ $bad -eq 0 ] || exit 1
        echo "check_sources: every source carries its SPDX line"
        ;;
    *)
        echo "usage: check_sources.sh SOURCE_DIR format CLANG_FORMAT | spdx" >&2
        exit 2
        ;;
esac
