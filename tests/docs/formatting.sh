#!/usr/bin/env bash
# Every C++ source of the project is formatted as .clang-format says.
set -euo pipefail
source=$1
cd "$source"
mapfile -t files < <(find src include tests examples bench python -name '*.cpp' -o -name '*.h' | sort)
clang-format --dry-run --Werror "${files[@]}"
echo "${#files[@]} files formatted"
