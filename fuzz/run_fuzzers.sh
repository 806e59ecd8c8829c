#!/bin/sh
# Runs every fuzz target for SECONDS over a copy of its seed corpus (the
# checked-in one stays as it is) and fails if any of them finds a crash, a
# sanitizer report, a leak or an input that runs past the timeout. What a
# target finds is kept as <target>-crash-... (or -timeout-, -leak-) in the
# current directory.
#
#   fuzz/run_fuzzers.sh BUILD_DIR SECONDS [TARGET...]
set -u

if [ $# -lt 2 ]; then
  echo "usage: $0 BUILD_DIR SECONDS [TARGET...]" >&2
  exit 2
fi
build=$1
seconds=$2
shift 2
targets=${*:-catalogue index playback timeline dayfiles verify}
corpora=$(cd "$(dirname "$0")" && pwd)/corpus
work=$(mktemp -d "${TMPDIR:-/tmp}/molra-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM

failed=0
total=0
for target in $targets; do
  program=$build/fuzz/molra-fuzz-$target
  mkdir -p "$work/$target"
  cp "$corpora/$target"/* "$work/$target/"
  if "$program" -max_total_time="$seconds" -max_len=8192 -timeout=25 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$target-" "$work/$target" >"$work/$target.log" 2>&1; then
    result=ok
  else
    result=FAILED
    failed=1
    tail -n 60 "$work/$target.log"
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log")
  total=$((total + ${runs:-0}))
  echo "molra-fuzz-$target: ${runs:-0} executions, $result"
done
echo "all targets: $total executions"
exit $failed
