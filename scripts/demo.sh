#!/usr/bin/env bash
# Installs the dependencies, builds and installs yulotifyd under build-demo/,
# and runs the live demo (scripts/demo.py). Run as root.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
bash scripts/deps.sh
echo "== building"
bash scripts/build.sh "$here/build-demo/build" "$here/build-demo/install" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DYULOTIFYD_BUILD_TESTS=OFF
exec /usr/bin/python3 "$here/scripts/demo.py" --prefix "$here/build-demo/install"
