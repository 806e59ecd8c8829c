#!/usr/bin/env bash
# H.264 into a store and out again: clips made by ffmpeg (without and with
# B-frames) are recorded and exported whole and in part; the whole export
# decodes to the source's frames, a part starts on a key frame and decodes
# cleanly. Streams that are no H.264, cut short or too large are refused
# without leaving anything wrong in the store. Skipped (77) without ffmpeg
# or without export in this build.
set -uo pipefail
molra=$(realpath "$1")
for tool in ffmpeg ffprobe python3; do
  command -v "$tool" >/dev/null || { echo "skipped: no $tool"; exit 77; }
done
if "$molra" export --help | grep -q 'without libavformat'; then
  echo "skipped: this molra has no export"
  exit 77
fi
work=$(mktemp -d /tmp/molra-video-XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failed=0
fail() { printf 'FAIL: %s\n' "$*"; failed=1; }
m() { "$molra" --drives "$work/drives" "$@"; }
# expect CODE ARGS...: molra ARGS, output in out and err.
expect() {
  local want=$1 got
  shift
  m "$@" >out 2>err
  got=$?
  [ "$got" = "$want" ] || { fail "molra $* exited $got, not $want: $(cat err)"; }
}
hashes() { ffmpeg -v error -i "$1" -f framemd5 - | grep -v '^#' | awk -F', *' '{print $NF}'; }
frames() {
  ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
    -of csv=p=0 "$1"
}
chunks() { m info --json | python3 -c 'import json,sys; print(sum(b["chunks"] for b in json.load(sys.stdin)["baskets"]))'; }

expect 0 create D:1
for bf in 0 2; do
  clip=clip$bf.h264
  hour=$((12 + bf))
  ffmpeg -v error -f lavfi -i testsrc=size=320x240:rate=25 -t 4 -c:v libx264 -g 25 -bf $bf \
    -f h264 "$clip" || { fail "ffmpeg made no clip"; continue; }
  expect 0 record --channel 3 --start "2024-05-01 $hour:00:00" "$clip"
  grep -q '100 frames (4 key frames)' out || fail "record -bf $bf: $(cat out)"

  for out in whole$bf.mp4 whole$bf.mkv whole$bf.ts; do
    expect 0 export --channel 3 --from "2024-05-01 $hour:00:00" --to "2024-05-01 $hour:00:04" "$out"
    [ "$(hashes "$out")" = "$(hashes "$clip")" ] || fail "$out: frames differ from the source"
  done
  [ "$(frames whole$bf.mp4)" = 100 ] || fail "whole$bf.mp4: $(frames whole$bf.mp4) frames, not 100"
  duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 whole$bf.mp4)
  python3 -c "import sys; sys.exit(abs($duration - 4.0) > 0.04)" ||
    fail "whole$bf.mp4 lasts $duration s, not 4"

  expect 0 export --channel 3 --from "2024-05-01 $hour:00:01.5" --to "2024-05-01 $hour:00:02.5" \
    mid$bf.mp4
  [ -z "$(ffmpeg -v error -i mid$bf.mp4 -f null - 2>&1)" ] || fail "mid$bf.mp4 decodes with errors"
  first=$(ffprobe -v error -show_entries frame=key_frame -read_intervals '%+#1' -of csv=p=0 mid$bf.mp4)
  [ "$first" = 1 ] || fail "mid$bf.mp4 starts on no key frame"
  # From the key frame of 01.000 to beyond 02.5: a run of the source's frames.
  python3 - "$(hashes "$clip")" "$(hashes mid$bf.mp4)" <<'EOF' || fail "mid$bf.mp4 is no run of the source"
import sys
whole, part = sys.argv[1].split(), sys.argv[2].split()
sys.exit(not (len(part) >= 38 and part == whole[25:25 + len(part)]))
EOF
done
expect 1 export --channel 3 --from "2024-05-02 00:00:00" --to "2024-05-03 00:00:00" none.mp4
grep -q 'nothing recorded' err || fail "empty range: $(cat err)"
[ ! -e none.mp4 ] || fail "an empty range left a file"

# Refusals: nothing stored, or only the frames before the break.
before=$(chunks)
printf 'not a video\n' >text.h264
expect 2 record --channel 5 text.h264
grep -q 'not an H.264 byte stream' err || fail "text: $(cat err)"
expect 2 record --channel 5 --start "2024-05-01 12:00:00" clip0.h264
grep -q 'forward in time' err || fail "a recording into the past: $(cat err)"
[ "$(chunks)" = "$before" ] || fail "a refused stream was stored"

# Cut inside the third IDR frame: the two groups of pictures before it stay.
third=$(LC_ALL=C grep -obUaP '\x00\x00\x01\x65' clip0.h264 | sed -n 3p | cut -d: -f1)
head -c $((third + 1000)) clip0.h264 >cut.h264
expect 1 record --channel 5 --start "2024-05-01 15:00:00" cut.h264
grep -q 'the 50 frames before it are stored' err || fail "cut: $(cat err)"
expect 0 export --channel 5 --from "2024-05-01 15:00:00" --to "2024-05-01 16:00:00" cut.mp4
[ "$(frames cut.mp4)" = 50 ] || fail "cut.mp4: $(frames cut.mp4) frames, not 50"
[ -z "$(ffmpeg -v error -i cut.mp4 -f null - 2>&1)" ] || fail "cut.mp4 decodes with errors"

{ cat clip0.h264; printf '\0\0\1\101\232'; head -c 900000 /dev/zero | tr '\0' '!'; } >big.h264
expect 1 record --channel 6 --start "2024-05-01 16:00:00" big.h264
grep -q 'longer than 811008 bytes' err && grep -q 'the 100 frames before it' err ||
  fail "too large: $(cat err)"

expect 0 verify
exit $failed
