#!/bin/sh
# The recstore tool is shipped: it links the library and the test kit, never GoogleTest. A
# testing:: symbol in it means that a GoogleTest helper was linked in.
# usage: check_tool_symbols.sh NM TOOL
nm=$1 tool=$2
if [ ! -f "$tool" ]; then
    echo "FAIL: $tool does not exist"; exit 1
fi
symbols=$("$nm" -C "$tool") || { echo "FAIL: $nm cannot read $tool"; exit 1; }
found=$(printf '%s\n' "$symbols" | grep -c 'testing::')
if [ "$found" -ne 0 ]; then
    echo "FAIL: $tool has $found testing:: symbols, for example:"
    printf '%s\n' "$symbols" | grep 'testing::' | head -5
    exit 1
fi
echo "tool symbols: $(printf '%s\n' "$symbols" | wc -l) symbols in $tool, none from GoogleTest"
