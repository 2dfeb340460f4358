#!/bin/sh
# SPDX-License-Identifier: MIT
# The nine host symbols are never defined by the library: the ones it uses are undefined symbols
# resolved from the loading program, and a program linked with the reference host exports all
# nine so that the dynamic linker can resolve them.
# usage: check_host_symbols.sh NM LIBRARY PROGRAM
nm=$1 lib=$2 prog=$3
status=0 used=0
for sym in tm_cmp tm_diff tm_offset_sec daysofmonth mktime_abs get_tick_count pip_system loglevel modulemask; do
    if "$nm" -D --defined-only "$lib" | awk '{print $NF}' | grep -qx "$sym"; then
        echo "FAIL: $lib defines $sym"; status=1
    fi
    if "$nm" -D --undefined-only "$lib" | awk '{print $NF}' | grep -qx "$sym"; then
        used=$((used + 1))
    fi
    if ! "$nm" -D --defined-only "$prog" | awk '{print $NF}' | grep -qx "$sym"; then
        echo "FAIL: $prog does not export $sym"; status=1
    fi
done
# The library prints, logs and runs commands: at least these must come from the host.
for sym in loglevel modulemask pip_system get_tick_count tm_cmp tm_diff tm_offset_sec; do
    if ! "$nm" -D --undefined-only "$lib" | awk '{print $NF}' | grep -qx "$sym"; then
        echo "FAIL: $sym is not an undefined symbol of $lib"; status=1
    fi
done
[ $status -eq 0 ] && echo "host symbols: none defined by the library, $used of 9 used from the host, all 9 exported by the program"
exit $status
