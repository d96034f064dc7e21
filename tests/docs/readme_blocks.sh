#!/usr/bin/env bash
# Every C++ block of the README is a complete program: each is compiled against the built
# library and run, so the README cannot drift from the interface.
set -euo pipefail
source=$1 build=$2 scratch=$3
rm -rf "$scratch" && mkdir -p "$scratch"
awk -v dir="$scratch" '
  /^```cpp$/ { n++; file = sprintf("%s/block%d.cpp", dir, n); inside = 1; next }
  /^```$/    { inside = 0; next }
  inside     { print > file }
' "$source/README.md"
blocks=("$scratch"/block*.cpp)
[ -e "${blocks[0]}" ] || { echo "no C++ block in the README"; exit 1; }
for block in "${blocks[@]}"; do
  c++ -std=c++20 -Wall -Wextra -Werror -I"$source/include" -I"$build/src/include" "$block" \
    -L"$build/src" -Wl,-rpath,"$build/src" -llumoframekit -lrigutil -o "${block%.cpp}"
  "${block%.cpp}" >/dev/null
  echo "$(basename "$block"): compiled and ran"
done
