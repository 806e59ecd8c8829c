#!/usr/bin/env bash
# Records one scripted workload with a Linux build and with a Windows build
# (run under Wine), checks that the two stores are the same bytes, and has
# each build play back both stores to the same chunks and timeline.
#
#   tests/exchange/run_exchange.sh <linux build dir> <windows build dir>
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: $0 <linux build dir> <windows build dir>" >&2; exit 2; }
linux=$(cd "$1" && pwd)/tests/molra_exchange
windows=$(cd "$2" && pwd)/tests/molra_exchange.exe
for program in "$linux" "$windows"; do
  [ -f "$program" ] || { echo "missing: $program" >&2; exit 2; }
done
# The Wine prefix of the mingw preset, unless the caller has one.
export WINEPREFIX=${WINEPREFIX:-$(cd "$2/.." && pwd)/wine-prefix}
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

work=$(mktemp -d /tmp/molra-exchange-XXXXXX)
trap 'rm -rf "$work"' EXIT

# run <platform> <mode> <store>: the program's lines, the store's drives in
# <store> below the work directory, given as a relative root.
run() {
  local program=$linux
  [ "$1" = windows ] && program="wine $windows"
  (cd "$work/$3" && $program "$2" .) | tr -d '\r'
}

failed=0
for platform in linux windows; do
  mkdir "$work/$platform"
  run "$platform" record "$platform" > "$work/$platform.recorded"
done
if ! cmp -s "$work/linux.recorded" "$work/windows.recorded"; then
  echo "the two recordings saved different chunks:"; cat "$work/linux.recorded" "$work/windows.recorded"
  failed=1
fi

# The catalogue, the baskets and the day files, byte for byte (the logs
# may differ in what the machine said).
stored() { (cd "$work/$1" && find . -type f ! -name '*.dat' | sort); }
if [ "$(stored linux)" != "$(stored windows)" ]; then
  echo "the two stores hold different files:"; diff <(stored linux) <(stored windows) || true
  failed=1
fi
while read -r file; do
  cmp "$work/linux/$file" "$work/windows/$file" || failed=1
done < <(stored linux)

for reader in linux windows; do
  for store in linux windows; do
    run "$reader" play "$store" > "$work/$reader-reads-$store"
    if ! head -n 1 "$work/$reader-reads-$store" | cmp -s - "$work/$store.recorded" ||
       ! cmp -s "$work/$reader-reads-$store" "$work/linux-reads-linux"; then
      echo "$reader playing back the store of $store:"; cat "$work/$reader-reads-$store"
      failed=1
    fi
  done
done

echo "recorded on both: $(cat "$work/linux.recorded")"
sed -n 2p "$work/linux-reads-linux"
[ "$failed" -eq 0 ] && echo "the same bytes and the same playback on Linux and Windows"
exit "$failed"
