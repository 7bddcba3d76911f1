#!/bin/bash
# Builds a program outside the tree against the installed library, once through the CMake package
# and once through pkg-config, and runs both. Runs in a private host.
set -euo pipefail

sources=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake -S "$sources" -B "$work/cmake" > "$work/log"
cmake --build "$work/cmake" >> "$work/log"
${CXX:-c++} -std=c++17 -Wall -Wextra -Wpedantic -Werror $(pkg-config --cflags tesauth) \
    "$sources/main.cpp" -o "$work/pkgconfig" $(pkg-config --libs tesauth)

expected=$'Active Directory\nNone'
for program in "$work/cmake/external" "$work/pkgconfig"; do
    actual=$("$program")
    if [ "$actual" != "$expected" ]; then
        echo "unexpected answer of $(basename "$program"): $actual" >&2
        exit 1
    fi
done
echo "built and ran both ways"
