#!/usr/bin/env bash
# Installs the built library into an unusual scratch prefix, then builds the consumer twice against
# it, through find_package and through pkg-config, and runs both with no LD_LIBRARY_PATH: the
# installed package must work from wherever it lies.
set -euo pipefail
build=$1 source=$2 scratch=$3
rm -rf "$scratch"
prefix="$scratch/opt/lumo-kit"
cmake --install "$build" --prefix "$prefix" >/dev/null
unset LD_LIBRARY_PATH

cmake -S "$source/tests/consumer" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null
"$scratch/build/consumer"

pc=$(dirname "$(find "$prefix" -name lumoframekit.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH="$pc" pkg-config --cflags --libs lumoframekit)
# shellcheck disable=SC2086
c++ -std=c++20 "$source/tests/consumer/consumer.cpp" $flags -o "$scratch/consumer-pkg-config"
"$scratch/consumer-pkg-config"

# The Python module, where it was built, imports from the installed tree and finds the library.
module=$(find "$prefix" -name 'lumoframekit.cpython-*.so' | head -n 1)
if [ -n "$module" ]; then
  PYTHONPATH=$(dirname "$module") /usr/bin/python3 -c \
    "import lumoframekit as lf; f = lf.frame_factory(lf.FrameType.MONO8_TOPDOWN, 4, 2); f.set_buffer(bytes(range(8))); assert f.get_data()[1, 3, 0] == 7"
  echo "python module: imported from $(dirname "$module")"
fi
