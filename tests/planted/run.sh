#!/usr/bin/env bash
# Applies each planted fault in turn to a copy of the working tree, builds,
# runs the tests and tells which caught it. Usage: run.sh [--only NN]...
set -u
shopt -s nullglob
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
scratch=${TMPDIR:-/tmp}/molra-planted
src=$scratch/src build=$scratch/build
only=()
while [ $# -gt 0 ]; do
  case $1 in
    --only) only+=("$2"); shift 2 ;;
    *) echo "usage: $0 [--only NN]..." >&2; exit 2 ;;
  esac
done

# A copy of the files git sees. Files left alone keep their times, files
# copied get a new one, so the build after a reverted plant is incremental.
mkdir -p "$src"
(cd "$repo" && git ls-files -co --exclude-standard) | sort >"$scratch/files" || exit 1
(cd "$src" && find . -type f | sed 's|^\./||' | sort) | comm -13 "$scratch/files" - |
  (cd "$src" && xargs -r -d '\n' rm -f --)
while IFS= read -r f; do
  [ -e "$repo/$f" ] || continue
  cmp -s "$repo/$f" "$src/$f" || { mkdir -p "$src/$(dirname "$f")" && cp "$repo/$f" "$src/$f"; }
done <"$scratch/files"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DMOLRA_BUILD_BENCHMARKS=OFF -DMOLRA_BUILD_TOOLS=ON >/dev/null || exit 1
fi
build_it() { cmake --build "$build" -j2 >"$scratch/build.log" 2>&1; }
# Failing tests, one a line (not those disabled). The package tests build
# the library afresh from the tree: too slow to run once per plant.
failing() {
  (cd "$build" && ctest -j2 --timeout 60 -LE package >"$scratch/ctest.log" 2>&1)
  awk '/tests FAILED:/ { listed = 1; next }
       listed && /^[[:space:]]*[0-9]+ - / && !/\((Disabled|Not Run)\)/ { print $3 }' "$scratch/ctest.log"
}

echo "baseline build and tests..."
build_it || { echo "the unplanted tree does not build: see $scratch/build.log"; exit 1; }
failing | sort >"$scratch/baseline"
[ -s "$scratch/baseline" ] && { echo "failing without a plant (not counted):"; sed 's/^/  /' "$scratch/baseline"; }

planted=0 caught=0 missed=0 bad=0
: >"$scratch/caught"  # every plant with all the tests that caught it
for patch in "$here"/[0-9]*.patch; do
  name=$(basename "$patch" .patch)
  if [ ${#only[@]} -gt 0 ]; then
    keep=0; for n in "${only[@]}"; do [ "${name%%-*}" = "$n" ] && keep=1; done
    [ $keep = 1 ] || continue
  fi
  planted=$((planted + 1))
  if ! patch -d "$src" -p1 -s -f --no-backup-if-mismatch --dry-run <"$patch" >/dev/null; then
    printf '%-40s | DOES NOT APPLY\n' "$name"; bad=$((bad + 1)); continue
  fi
  patch -d "$src" -p1 -s -f --no-backup-if-mismatch <"$patch" >/dev/null
  if ! build_it; then
    printf '%-40s | DOES NOT BUILD (bad plant)\n' "$name"; bad=$((bad + 1))
    cp "$scratch/build.log" "$scratch/$name.build.log"
  else
    mapfile -t fails < <(failing | sort | comm -23 - "$scratch/baseline")
    if [ ${#fails[@]} -eq 0 ]; then
      printf '%-40s | NOT CAUGHT\n' "$name"; missed=$((missed + 1))
    else
      printf '%-40s | caught by: %s (%d tests failed)\n' "$name" \
        "$(printf '%s, ' "${fails[@]:0:3}" | sed 's/, $//')" ${#fails[@]}
      echo "$name: ${fails[*]}" >>"$scratch/caught"
      caught=$((caught + 1))
    fi
  fi
  patch -d "$src" -p1 -s -f --no-backup-if-mismatch -R <"$patch" >/dev/null
done
echo "planted $planted, caught $caught, missed $missed$([ $bad -gt 0 ] && echo ", bad $bad")"
[ $missed -eq 0 ] && [ $bad -eq 0 ]
