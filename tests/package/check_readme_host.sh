#!/usr/bin/env bash
# Compiles and links the README's host example (its first C++ block with a
# main) as written, against the library that was built.
# Usage: check_readme_host.sh README.md <c++ compiler> <include dir> <library file>
set -euo pipefail
readme=$1 cxx=$2 include=$3 library=$4
work=$(mktemp -d /tmp/molra-readme-XXXXXX)
trap 'rm -rf "$work"' EXIT

awk '/^```cpp[[:space:]]*$/ { inside = 1; block = ""; next }
     inside && /^```/ { inside = 0; if (block ~ /int main/) { printf "%s", block; exit } next }
     inside { block = block $0 "\n" }' "$readme" >"$work/host.cpp"
if [ ! -s "$work/host.cpp" ]; then
  echo "README: no C++ block with int main" >&2
  exit 1
fi
"$cxx" -std=c++17 -Wall -Wextra -Werror -I"$include" "$work/host.cpp" "$library" -o "$work/host"
echo "README host example: compiles and links"
