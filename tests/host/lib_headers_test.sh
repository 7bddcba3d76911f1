#!/bin/bash
# Every installed header compiles alone and without a warning: as C++17 and C++20, the plug-in
# interfaces as C11 too, with each compiler that this host has. Runs on a private host.
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
warnings=(-Wall -Wextra -Wpedantic -Werror -fsyntax-only)

cd /usr/include
headers=(tesauth/*.h tesauth/plugin/*.h systemconfiguration/*.h)
[ ${#headers[@]} -ge 19 ] || { echo "too few headers: ${headers[*]}" >&2 && exit 1; }

# One line a compilation: compiler, language, header.
list() {
    local header pair standard
    for header in "${headers[@]}"; do
        for pair in 'g++ gcc' 'clang++ clang'; do
            command -v "${pair% *}" >/dev/null || continue
            for standard in c++17 c++20; do
                echo "${pair% *} $standard $header"
            done
            [[ $header != */plugin/* ]] || echo "${pair#* } c11 $header"
        done
    done
}

compile() { # COMPILER STANDARD HEADER
    local source extension=cpp
    [ "$2" != c11 ] || extension=c
    source=$work/$(echo "$1 $2 $3" | tr -c 'a-z0-9\n' _).$extension
    # Twice, so that it is guarded; and nothing before it.
    printf '#include "%s"\n#include "%s"\n' "$3" "$3" >"$source"
    "$1" "-std=$2" "${warnings[@]}" "$source" || { echo "failed: $*" >&2 && return 1; }
}

export -f compile
list >"$work/list"
running=0 failed=0
while read -r compiler standard header; do
    [ "$running" -lt "$(nproc)" ] || { wait -n || failed=1; running=$((running - 1)); }
    compile "$compiler" "$standard" "$header" &
    running=$((running + 1))
done <"$work/list"
while [ "$running" -gt 0 ]; do
    wait -n || failed=1
    running=$((running - 1))
done
echo "$(wc -l <"$work/list") compilations"
exit "$failed"
