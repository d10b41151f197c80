#!/usr/bin/env bash
# Installs the dependencies, builds yulotifyd three ways (plain, ASan+UBSan,
# TSan) and runs every test: the unit tests of each build, the Debian
# packages (scripts/package.sh) and the same packages under a real systemd
# in a throw-away container (tests/system), and the
# end-to-end tests against the installed plain build (and the pipeline ones
# against the TSan build). Run as root: the tests
# mount file systems in private mount namespaces and use fanotify. Last, a
# fourth build with clang runs every fuzz target over its corpus and then
# fuzzes each for 30 seconds (fuzz/README.md).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
bash scripts/deps.sh

out=${YULOTIFYD_TEST_DIR:-$here/build-test}
mkdir -p "$out"

echo "== plain build"
bash scripts/build.sh "$out/plain" "$out/plain-install" -DCMAKE_BUILD_TYPE=RelWithDebInfo
(cd "$out/plain" && ctest --output-on-failure -j2)

# The Debian packages, built as a packager does (the build runs the unit
# tests not labelled "root" as user nobody), linted, installed and purged.
echo "== Debian packages"
bash scripts/package.sh "$out/package"

# Those packages installed and run by a real systemd, booted as PID 1 of a
# throw-away container (tests/system/README.md); nothing outside it changes.
echo "== system tests: the packages under systemd"
YULOTIFYD_PACKAGE_DIR="$out/package" /usr/bin/python3 -m pytest -q -p no:cacheprovider "$here/tests/system"

echo "== end-to-end tests"
YULOTIFYD_PREFIX="$out/plain-install" /usr/bin/python3 -m pytest -q -p no:cacheprovider "$here/tests/e2e"

# The same pipeline with the daemon keeping only the capabilities the
# installed unit gives it: they have to be enough. (The system tests above
# run the real unit, whose bounding set systemd enforces, through the
# control commands too.)
echo "== pipeline end-to-end tests with the unit's capabilities only"
YULOTIFYD_PREFIX="$out/plain-install" /usr/bin/python3 -m pytest -q -p no:cacheprovider \
  --unit-caps "$here/tests/e2e/test_pipeline.py"

echo "== ASan+UBSan build"
bash scripts/build.sh "$out/asan" "$out/asan-install" -DCMAKE_BUILD_TYPE=Debug -DYULOTIFYD_SANITIZE=address
(cd "$out/asan" && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j2)

echo "== TSan build"
bash scripts/build.sh "$out/tsan" "$out/tsan-install" -DCMAKE_BUILD_TYPE=Debug -DYULOTIFYD_SANITIZE=thread
(cd "$out/tsan" && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j2)

# The daemon's worker threads under ThreadSanitizer, driven for real by the
# tests that keep the pipeline busy: a report makes the daemon exit with
# status 66, which these tests check.
echo "== pipeline end-to-end tests against the TSan daemon"
TSAN_OPTIONS=halt_on_error=0 YULOTIFYD_PREFIX="$out/tsan-install" \
  /usr/bin/python3 -m pytest -q -p no:cacheprovider \
  "$here/tests/e2e/test_pipeline.py" "$here/tests/e2e/test_control_pipeline.py" \
  "$here/tests/e2e/test_stop.py" "$here/tests/e2e/test_follow.py"

# The fuzz targets (clang, libFuzzer with ASan+UBSan): each corpus input
# once, which replays the inputs of every finding fixed so far, then 30
# seconds of fuzzing per target, two at a time, on copies of the corpora.
echo "== fuzz build"
CC=clang CXX=clang++ cmake -S "$here" -B "$out/fuzz" -DYULOTIFYD_FUZZ=ON \
  -DYULOTIFYD_BUILD_TESTS=OFF -DYULOTIFYD_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$out/fuzz" --target yulo_fuzzers -j2
(cd "$out/fuzz" && ctest --output-on-failure -j2)

echo "== fuzz targets, 30 s each"
rm -rf "$out/fuzz-work"
YULOTIFYD_FUZZ_BUILD="$out/fuzz" YULOTIFYD_FUZZ_WORK="$out/fuzz-work" \
  YULOTIFYD_FUZZ_JOBS=2 bash "$here/fuzz/run.sh" 30

echo "== all tests passed"
