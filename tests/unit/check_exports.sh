#!/bin/sh
# The shared library exports exactly the functions and global variables that the public header
# declares, apart from the nine host symbols (the program defines those): every name missing on
# either side is listed and fails the test, and so does an empty list on either side.
#
# The header's names come from the header itself: it is run through the C preprocessor and only
# its own lines are read. Every statement at file scope must be a typedef, a record definition,
# a forward declaration, an extern variable or a function prototype; anything else stops the
# script with an error rather than being skipped.
# usage: check_exports.sh CC NM HEADER LIBRARY
cc=$1 nm=$2 header=$3 lib=$4
if [ $# -ne 4 ] || [ ! -f "$header" ] || [ ! -f "$lib" ]; then
    echo "usage: check_exports.sh CC NM HEADER LIBRARY" >&2
    exit 2
fi
work=$(mktemp -d) || exit 2
trap 'rm -rf "$work"' EXIT
"$cc" -E -D_GNU_SOURCE -x c "$header" | awk -v header="$header" '
# Line markers name the file the following lines come from; keep the header'"'"'s own lines.
/^# [0-9]+ "/ { file = $3; gsub(/"/, "", file); next }
/^#/ { next }
file == header { text = text " " $0 }
function fail(why) { print "check_exports.sh: " why > "/dev/stderr"; failed = 1; exit 1 }
function trim(s) { gsub(/^[ \t]+|[ \t]+$/, "", s); return s }
# Removes every __attribute__((...)) and __asm__(...) with its balanced parentheses.
function strip_attributes(s,    out, i, n, depth, m) {
    out = ""
    while (match(s, /__attribute__[ \t]*\(|__asm__[ \t]*\(/)) {
        out = out substr(s, 1, RSTART - 1)
        i = RSTART + RLENGTH; depth = 1; n = length(s)
        while (i <= n && depth > 0) {
            m = substr(s, i, 1)
            if (m == "(") depth++
            else if (m == ")") depth--
            i++
        }
        if (depth > 0) fail("unbalanced attribute")
        s = substr(s, i)
    }
    return out s
}
# The identifier that ends s (after array bounds are removed).
function last_identifier(s) {
    gsub(/\[[^]]*\]/, "", s)
    s = trim(s)
    if (!match(s, /[A-Za-z_][A-Za-z0-9_]*$/)) return ""
    return substr(s, RSTART, RLENGTH)
}
function declaration(s,    head, name) {
    s = trim(s)
    if (s == "") return
    if (s ~ /^typedef[ \t]/) return
    if (s ~ /^(struct|union|enum)[ \t]+[A-Za-z_0-9]+[ \t]*\{/) return  # a record definition
    if (s ~ /^(struct|union|enum)[ \t]+[A-Za-z_0-9]+$/) return          # a forward declaration
    if (index(s, "{") > 0) fail("unexpected block: " s)
    if (index(s, "(") == 0) {
        if (s !~ /^extern[ \t]/) fail("a variable defined in the header: " s)
        name = last_identifier(s)
    } else {
        head = substr(s, 1, index(s, "(") - 1)
        if (trim(head) ~ /[*)]$|^$/) fail("unexpected declarator: " s)
        name = last_identifier(head)
    }
    if (name == "") fail("no name in: " s)
    print name
}
END {
    if (failed) exit 1
    text = strip_attributes(text)
    depth = 0; start = 1; n = length(text)
    for (i = 1; i <= n; i++) {
        c = substr(text, i, 1)
        if (c == "{" || c == "(") depth++
        else if (c == "}" || c == ")") depth--
        else if (c == ";" && depth == 0) {
            declaration(substr(text, start, i - start))
            start = i + 1
        }
    }
    if (depth != 0) fail("unbalanced braces or parentheses")
    if (trim(substr(text, start)) != "") fail("text after the last declaration")
}' > "$work/declared" || { echo "FAIL: cannot read the names $header declares"; exit 1; }
host='tm_cmp|tm_diff|tm_offset_sec|daysofmonth|mktime_abs|get_tick_count|pip_system|loglevel|modulemask'
grep -vxE "$host" "$work/declared" | LC_ALL=C sort -u > "$work/header"
"$nm" -D --defined-only "$lib" > "$work/nm" || { echo "FAIL: $nm cannot read $lib"; exit 1; }
awk '{print $NF}' "$work/nm" | LC_ALL=C sort -u > "$work/library"
status=0
if [ ! -s "$work/header" ]; then echo "FAIL: no names found in $header"; status=1; fi
if [ ! -s "$work/library" ]; then echo "FAIL: $lib exports nothing"; status=1; fi
LC_ALL=C comm -13 "$work/header" "$work/library" > "$work/extra"
LC_ALL=C comm -23 "$work/header" "$work/library" > "$work/missing"
if [ -s "$work/extra" ]; then
    echo "FAIL: exported by $lib but not declared in $header:"; sed 's/^/  /' "$work/extra"; status=1
fi
if [ -s "$work/missing" ]; then
    echo "FAIL: declared in $header but not exported by $lib:"; sed 's/^/  /' "$work/missing"; status=1
fi
[ $status -eq 0 ] && echo "exports: the $(wc -l < "$work/library") names of $lib are those $header declares"
exit $status
