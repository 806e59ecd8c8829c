#!/usr/bin/env bash
# Builds a host against molra three ways: through add_subdirectory (static),
# and, after cmake --install of a shared build, through find_package and
# through pkg-config. The shared library must export none of the internals.
set -euo pipefail
src=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/molra-package-XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake -S "$src/tests/package/consumer" -B "$work/sub" -DMOLRA_SOURCE_DIR="$src" >/dev/null
cmake --build "$work/sub" -j2 >/dev/null
"$work/sub/consumer" "$work/drives-sub"

cmake -S "$src" -B "$work/lib" -DBUILD_SHARED_LIBS=ON -DMOLRA_BUILD_TESTS=OFF \
      -DMOLRA_BUILD_TOOLS=OFF -DMOLRA_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$work/lib" -j2 >/dev/null
cmake --install "$work/lib" --prefix "$work/prefix" >/dev/null
cmake -S "$src/tests/package/consumer" -B "$work/pkg" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/pkg" -j2 >/dev/null
"$work/pkg/consumer" "$work/drives-pkg"

libdir=$(dirname "$(find "$work/prefix" -name molra.pc)")/..
# The exports: the class, CTime, CWnd, the platform settings, and what the
# standard library's templates export of themselves (told by mangled name).
std='^_Z(T[VIS]|GV|Z)*N?K?S[tabsiod]'
public='^((typeinfo (name )?for |vtable for )?(CMOLRA|CTime|CWnd)(::|$)|molra::platform::Set[A-Za-z]+\()'
leaks=$(nm -D --defined-only "$libdir/libmolra.so.0" | awk '{ print $3 }' | grep -vE "$std" |
        c++filt | grep -vE "$public" || true)
if [ -n "$leaks" ]; then
  printf 'libmolra.so exports more than its public API:\n%s\n' "$leaks" >&2
  exit 1
fi

command -v pkg-config >/dev/null || { echo "pkg-config is missing" >&2; exit 1; }
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
"${CXX:-c++}" -std=c++17 -o "$work/pc-consumer" "$src/tests/package/consumer/main.cpp" \
    $(pkg-config --cflags --libs molra)
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer" "$work/drives-pc"
