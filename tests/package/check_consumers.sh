#!/usr/bin/env bash
# Builds a host against molra twice: through add_subdirectory, and through
# find_package after cmake --install.
set -euo pipefail
src=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/molra-package-XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake -S "$src/tests/package/consumer" -B "$work/sub" -DMOLRA_SOURCE_DIR="$src" >/dev/null
cmake --build "$work/sub" -j2 >/dev/null
"$work/sub/consumer" "$work/drives-sub"

cmake -S "$src" -B "$work/lib" -DMOLRA_BUILD_TESTS=OFF -DMOLRA_BUILD_TOOLS=OFF >/dev/null
cmake --build "$work/lib" -j2 >/dev/null
cmake --install "$work/lib" --prefix "$work/prefix" >/dev/null
cmake -S "$src/tests/package/consumer" -B "$work/pkg" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/pkg" -j2 >/dev/null
"$work/pkg/consumer" "$work/drives-pkg"
