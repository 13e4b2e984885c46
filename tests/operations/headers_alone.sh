#!/usr/bin/env bash
# Every public header compiles alone, under each installed compiler, in each supported language.
#
# Usage: headers_alone.sh INCLUDE_DIR
set -euo pipefail

if [[ $# -ne 1 || ! -d $1 ]]; then
    echo "usage: ${0##*/} INCLUDE_DIR" >&2
    exit 2
fi
include_dir=$1

headers=(tavroops.h tavropane.h tavrotransfer.h)
compilers=(g++ clang++)
standards=(c++17 c++20 c++2b) # c++2b: C++23, by the name that older compilers know as well
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)

compiles_alone() { # COMPILER STANDARD HEADER
    echo "#include \"$3\"" |
        "$1" "-std=$2" "${warnings[@]}" -I "$include_dir" -fsyntax-only -x c++ -
}

tried=0
failed=0
for compiler in "${compilers[@]}"; do
    if ! command -v "$compiler" >/dev/null; then
        echo "skipped: $compiler is not installed"
        continue
    fi
    for standard in "${standards[@]}"; do
        for header in "${headers[@]}"; do
            tried=$((tried + 1))
            if compiles_alone "$compiler" "$standard" "$header"; then
                echo "ok: $compiler $standard $header"
            else
                echo "FAILED: $compiler $standard $header"
                failed=$((failed + 1))
            fi
        done
    done
done

if [[ $tried -eq 0 ]]; then
    echo "no compiler was found" >&2
    exit 1
fi
echo "$((tried - failed)) of $tried compile"
[[ $failed -eq 0 ]]
