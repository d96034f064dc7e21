#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs the consumer project
# against it.
set -euo pipefail
build=$1 source=$2 scratch=$3
rm -rf "$scratch"
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source/tests/consumer" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null
LD_LIBRARY_PATH="$scratch/prefix/lib:$scratch/prefix/lib64:${LD_LIBRARY_PATH:-}" "$scratch/build/consumer"
test -f "$scratch/prefix/lib/pkgconfig/lumoframekit.pc" || test -f "$scratch/prefix/lib64/pkgconfig/lumoframekit.pc"
