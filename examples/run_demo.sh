#!/usr/bin/env bash
# Runs the example server for a few seconds in a sandbox install directory
# under build/, drops files into its inbox, and shows with tvreg what the
# server recorded in the shared registry. Used by `make demo`.
set -euo pipefail
build=${1:-build/dev}
server="$build/examples/tvdemo"
tvreg="$build/tools/tvreg"
root="$(pwd)/build/demo-sandbox"

rm -rf "$root"
mkdir -p "$root"
printf '[server]\nname=tvdemo\nscan_ms=300\n' > "$root/tvdemo.ini"

echo "== starting tvdemo in $root (it runs for 5 seconds)"
"$server" --root "$root" --run-seconds 5 &
pid=$!
# Wait until the server has made its inbox (it starts in well under a second).
for _ in $(seq 1 100); do [ -d "$root/inbox" ] && break; sleep 0.1; done

echo "== dropping three files into the inbox"
sleep 1
printf 'alpha beta gamma\ndelta epsilon\n' > "$root/inbox/notes.txt"
seq 1 1000 > "$root/inbox/numbers.txt"
cp README.md "$root/inbox/readme.md"

if [ -x "$tvreg" ]; then
  sleep 2
  echo
  echo "== registry status while the server runs (tvreg is a second process on the same registry)"
  "$tvreg" --root "$root" status
  echo
fi

wait "$pid"
echo
echo "== what the server recorded, as tvreg sees it"
if [ -x "$tvreg" ]; then
  "$tvreg" --root "$root" list 'HKLM\SOFTWARE\TvDemo\Results'
  echo
  "$tvreg" --root "$root" export 'HKLM\SOFTWARE\TvDemo'
else
  echo "(tvreg is not built; the registry file itself:)"
  cat "$root/registry/tv.registry"
fi
echo
echo "== profile after the run"
cat "$root/tvdemo.ini"
first="$build/examples/first_program"
if [ -x "$first" ]; then
  echo
  echo "== examples/first_program.cpp: the everyday Win32 calls, each checked"
  "$first"
fi
