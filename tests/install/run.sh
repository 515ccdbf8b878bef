#!/bin/sh
# Installs the current build into a scratch prefix and builds a consumer against it, then
# checks that the source tree also works through add_subdirectory.
#   run.sh <source dir> <build dir> <cmake> <c++ compiler> [extra compile/link flags]
# Set OSTREVIK_INSTALL_TEST_FULL=1 to also build the add_subdirectory consumer (slow: it
# compiles the library again); by default it is only configured.
set -eu
src=$1 build=$2 cmake=$3 cxx=$4 flags=${5:-}
tmp=$(mktemp -d "${TMPDIR:-/tmp}/ostrevik-install-XXXXXX")
trap 'rm -rf "$tmp"' EXIT

"$cmake" --install "$build" --prefix "$tmp/prefix" >/dev/null
test -x "$tmp/prefix/bin/ostrevik-server"
test -f "$tmp/prefix/include/ostrevik/core.h"

"$cmake" -S "$src/tests/install/consumer" -B "$tmp/consumer" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$tmp/prefix" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
"$cmake" --build "$tmp/consumer" >/dev/null
"$tmp/consumer/consumer"

"$cmake" -S "$src/tests/install/subdir" -B "$tmp/subdir" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$cxx" -DOSTREVIK_SOURCE="$src" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
if [ "${OSTREVIK_INSTALL_TEST_FULL:-0}" = 1 ]; then
  "$cmake" --build "$tmp/subdir" -j2 --target consumer >/dev/null
  "$tmp/subdir/consumer"
fi
echo "install and subdirectory use: ok"
