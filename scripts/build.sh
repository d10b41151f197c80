#!/usr/bin/env bash
# Configures, builds and installs one flavour of yulotifyd, with warnings
# as errors.
#   scripts/build.sh BUILD_DIR PREFIX [extra cmake arguments...]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$1 prefix=$2
shift 2
cmake -S "$here" -B "$build" -DCMAKE_INSTALL_PREFIX="$prefix" -DYULOTIFYD_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
cmake --install "$build" >/dev/null
