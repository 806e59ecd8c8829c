#!/usr/bin/env bash
# The molra command and the demo host on a temporary machine: refused
# command lines exit 2 with the problem on the first line of standard error
# and make no file; then a store is laid out, extended, listed, asked for a
# day and checked.
set -uo pipefail
molra=$(realpath "$1")
demo=$(realpath "$2")
work=$(mktemp -d /tmp/molra-cli-XXXXXX)
trap 'rm -rf "$work"' EXIT
drives=$work/drives
mkdir "$work/cwd" && cd "$work/cwd" || exit 1
failed=0

# expect CODE COMMAND...: runs it, output in $work/out and $work/err.
expect() {
  local want=$1 got
  shift
  "$@" >"$work/out" 2>"$work/err"
  got=$?
  if [ "$got" != "$want" ]; then
    printf 'FAIL: %s exited %s, not %s\n' "$*" "$got" "$want"
    cat "$work/err"
    failed=1
  fi
}
untouched() {
  if [ -e "$drives" ] || [ -n "$(ls -A "$work/cwd")" ]; then
    printf 'FAIL: %s made files\n' "$1"
    find "$drives" "$work/cwd" 2>/dev/null
    failed=1
  fi
}

refusals=(
  "--bogus" "nosuch" "retain abc" "retain -1" "retain 0x10" "retain ''" "retain 0" "retain 1 2"
  "create" "create D2" "create D:0" "create 1:2" "timeline 2024-02-30"
  "timeline 2024-02-03 --channel 3" "timeline 2024-02-03 --channel 16 --hour 1"
  "record --channel 3" "record --channel 3 --fps 0 -" "record --channel 3 --start 2024-02-30T00:00:00 -"
  "export --channel 3 --from 2024-02-03T00:00:00 --to 2024-02-03T00:00:00 x.mp4"
  "export --channel 3 --from 2024-02-03T00:00:00 --to 2024-02-04T00:00:00 x.avi"
)
for args in "${refusals[@]}"; do
  eval "expect 2 \"\$molra\" --drives \"\$drives\" $args"
  head -n 1 "$work/err" | grep -q '^molra: ' || { echo "FAIL: molra $args: no error line"; failed=1; }
  untouched "molra $args"
done
for args in "--bogus" "--retain abc" "--retain ''" "extra"; do
  eval "expect 2 \"\$demo\" $args"
  untouched "molra-demo $args"
done
for command in "$molra --help" "$molra retain --help" "$demo --help"; do
  expect 0 $command
  grep -qi 'usage' "$work/out" || { echo "FAIL: $command: no usage"; failed=1; }
  untouched "$command"
done

baskets() {
  python3 -c 'import json, sys; d = json.load(sys.stdin); print(d["head"]["baskets"], len(d["baskets"]))' \
    <"$work/out"
}
expect 2 "$molra" --drives "$drives" info
expect 0 "$molra" --drives "$drives" create D:2
expect 0 "$molra" --drives "$drives" info --json
[ "$(baskets)" = "2 2" ] || { echo "FAIL: info --json after create D:2: $(baskets)"; failed=1; }
expect 2 "$molra" --drives "$drives" create D:1
grep -q 'use --extend' "$work/err" || { echo "FAIL: create on a store: $(cat "$work/err")"; failed=1; }
expect 0 "$molra" --drives "$drives" create --extend D:1
expect 0 "$molra" --drives "$drives" info --json
[ "$(baskets)" = "3 3" ] || { echo "FAIL: info --json after --extend D:1: $(baskets)"; failed=1; }
expect 1 "$molra" --drives "$drives" timeline 2024-01-01
expect 1 "$molra" --drives "$drives" timeline 2024-01-01 --channel 0 --hour 0
expect 0 "$molra" --drives "$drives" verify
grep -qx 'sound' "$work/out" || { echo "FAIL: verify: $(cat "$work/out")"; failed=1; }
[ -z "$(ls -A "$work/cwd")" ] || { echo "FAIL: files below the current directory"; failed=1; }
exit $failed
