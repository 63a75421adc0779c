#!/usr/bin/env bash
# Builds the library and the corvanth tool, and runs the tool's demos: the
# log records of every tag, and one message between two processes over TCP
# and one through a window.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCORVANTH_BUILD_TESTS=OFF -DCORVANTH_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo --target corvanth
./build-demo/tools/corvanth --version
./build-demo/tools/corvanth log-demo

# One request on its road between two processes: parameters in an array, its
# string form in a message, the message in a frame, and back again.
echo
echo "== corvanth serve and corvanth send: one message with parameters, and its answer"
exec 3< <(./build-demo/tools/corvanth serve --count 1 --name agent)
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
read -r -t 20 first <&3 || { echo "demo: the server did not start" >&2; exit 1; }
echo "[serve] $first"
./build-demo/tools/corvanth send --port "${first##*:}" --to agent@localhost --from console@demo \
  --type 5 --subtype 2 --id 7 user=alice speed=3 'note=zero\0byte' \
  'script={name=checkout,steps=3}' | sed 's/^/[send]  /'
sed 's/^/[serve] /' <&3
exec 3<&-
wait "$server"

# The same road between two processes on this machine, through a window
# instead of a socket: the message arrives as a packed record.
echo
echo "== corvanth window serve and corvanth window send: one message through a window"
window="demo-$$"
exec 4< <(./build-demo/tools/corvanth window serve "$window" --count 1)
window_server=$!
trap 'kill "$window_server" 2>/dev/null || true' EXIT
read -r -t 20 first <&4 || { echo "demo: the window did not open" >&2; exit 1; }
echo "[window serve] $first"
./build-demo/tools/corvanth window send "$window" --to agent@localhost --from console@demo \
  --type 5 --subtype 2 --id 8 --code 3 user=alice speed=3 | sed 's/^/[window send]  /'
sed 's/^/[window serve] /' <&4
exec 4<&-
wait "$window_server"
