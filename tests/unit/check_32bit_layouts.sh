#!/bin/sh
# On the 32-bit ARM target a host built with 64-bit off_t or time_t would disagree with the
# library on the layout of the records it shares with it, so the public header stops such a
# build with an error that says why. Checked with the ARM cross compiler: the plain build of a
# file that includes the header compiles, the builds with _FILE_OFFSET_BITS=64 (alone and with
# _TIME_BITS=64) fail with the header's own message.
# usage: check_32bit_layouts.sh ARM_CXX INCLUDE_DIR
cxx=$1 include=$2
if [ $# -ne 2 ] || [ ! -f "$include/recstore.h" ]; then
    echo "usage: check_32bit_layouts.sh ARM_CXX INCLUDE_DIR" >&2
    exit 2
fi
work=$(mktemp -d) || exit 2
trap 'rm -rf "$work"' EXIT
printf '#include "recstore.h"\nint main() { return sizeof(fs_disk_info) == 560 ? 0 : 1; }\n' > "$work/host.cpp"
status=0
if ! "$cxx" -fsyntax-only -I"$include" "$work/host.cpp" 2> "$work/plain.err"; then
    echo "FAIL: the header does not compile for the 32-bit target without the flags:"
    cat "$work/plain.err"; status=1
fi
for flags in "-D_FILE_OFFSET_BITS=64" "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64"; do
    # shellcheck disable=SC2086 # the flags are separate words
    if "$cxx" -fsyntax-only -I"$include" $flags "$work/host.cpp" 2> "$work/err"; then
        echo "FAIL: a host built with $flags compiles"; status=1
    elif ! grep -q 'recstore.h: _FILE_OFFSET_BITS=64 changes off_t.*build the host without _FILE_OFFSET_BITS=64' "$work/err"; then
        echo "FAIL: a host built with $flags fails without the header's message:"
        cat "$work/err"; status=1
    fi
done
[ $status -eq 0 ] && echo "32-bit layouts: the header refuses _FILE_OFFSET_BITS=64 and _TIME_BITS=64 on ARM"
exit $status
