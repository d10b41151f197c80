#!/usr/bin/env bash
# Builds the Debian packages as a packager does, `dpkg-buildpackage -us -uc
# -b`, out of a copy of the tree (the tree itself stays clean), lints them
# (any lintian error fails), then installs yulotifyd with its libraries and
# the development package on this machine, checks what got installed, and
# purges the packages again. Run as root on Debian 12.
#   scripts/package.sh [OUT_DIR]     (default: build-package/)
# The .deb files and the build log end up in OUT_DIR. Run as root, the
# build itself runs as user nobody, so the unit tests it runs (`ctest -LE
# root`, see README.md) show that they pass without root. DEB_BUILD_OPTIONS
# is passed on (default: parallel=2).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
out=$(mkdir -p "${1:-$here/build-package}" && cd "${1:-$here/build-package}" && pwd)
export DEBIAN_FRONTEND=noninteractive
export DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS:-parallel=2}

fail() {
  echo "package.sh: $*" >&2
  exit 1
}

# The packaging tools (dpkg-dev, debhelper, lintian, man-db), then whatever
# debian/control asks for that is missing.
for tool in dpkg-buildpackage dh lintian man; do
  if ! command -v "$tool" >/dev/null; then
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends dpkg-dev debhelper lintian man-db >/dev/null
    break
  fi
done
if ! (cd "$here" && dpkg-checkbuilddeps >/dev/null 2>&1); then
  apt-get update -qq
  apt-get build-dep -y -qq "$here" >/dev/null
fi

# The tree as git sees it (tracked files as they are now, new files that are
# not ignored), in a directory of its own: dpkg-buildpackage writes the
# packages next to the source directory.
work=$(mktemp -d /tmp/yulotifyd-package.XXXXXX)
installed=()
cleanup() {
  if ((${#installed[@]})); then
    apt-get purge -y -qq "${installed[@]}" >/dev/null 2>&1 || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
chmod 0755 "$work"
mkdir "$work/yulotifyd"
# (--ignore-failed-read: a tracked file deleted in the tree is left out.)
(cd "$here" && git ls-files -z --cached --others --exclude-standard |
  tar --null -T - --ignore-failed-read -cf -) | tar -xf - -C "$work/yulotifyd"

as_builder=()
if (($(id -u) == 0)); then
  chown -R 65534:65534 "$work"
  as_builder=(setpriv --reuid=65534 --regid=65534 --clear-groups env HOME="$work")
fi
echo "== dpkg-buildpackage -us -uc -b (DEB_BUILD_OPTIONS=$DEB_BUILD_OPTIONS)"
if ! (cd "$work/yulotifyd" && "${as_builder[@]}" dpkg-buildpackage -us -uc -b) \
    >"$out/build.log" 2>&1; then
  tail -n 60 "$out/build.log" >&2
  fail "dpkg-buildpackage failed; the whole log is $out/build.log"
fi
grep -E "tests passed|tests failed" "$out/build.log" || true
rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
cp "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$out"/
ls "$out"/*.deb

echo "== lintian"
changes=$(ls "$out"/yulotifyd_*.changes)
lintian --fail-on error --tag-display-limit 0 "$changes" ||
  fail "lintian reported errors"

echo "== install"
debs=()
for p in yulotifyd libyulotifyd1 libyuloplatform0 libyulotifyd-dev; do
  debs+=("$(ls "$out"/${p}_*.deb)")
  installed+=("$p")
done
# Where systemd runs, the package's postinst starts the service; this check
# is about the package, not about running the daemon on the build machine,
# so the unit is masked for the length of the install.
mask=/etc/systemd/system/yulotifyd.service
if [[ -d /run/systemd/system && ! -e $mask && ! -L $mask ]]; then
  ln -s /dev/null "$mask"
  apt-get install -y -qq "${debs[@]}" >/dev/null || { rm -f "$mask"; fail "apt-get install failed"; }
  rm -f "$mask"
else
  apt-get install -y -qq "${debs[@]}" >/dev/null
fi

unit=/lib/systemd/system/yulotifyd.service
[[ -f $unit ]] || fail "$unit is not installed"
systemd-analyze verify "$unit" || fail "systemd-analyze verify $unit failed"
grep -qx "ExecStart=/usr/sbin/yulotifyd" "$unit" || fail "$unit does not run /usr/sbin/yulotifyd"
getent group yulotifyd >/dev/null || fail "the package did not create group yulotifyd"

# (Outputs are taken whole before they are searched: with pipefail, a grep
# -q that stops reading early could fail the pipe.)
help=$(yulotifyctl --help)
[[ $help == "usage: yulotifyctl "* ]] || fail "yulotifyctl --help printed no usage"
[[ $(yulotifyctl --version) == "yulotifyctl 0.1.0" ]] || fail "yulotifyctl --version is not 0.1.0"
for bin in /usr/sbin/yulotifyd /usr/bin/yulotifyctl; do
  libs=$(ldd "$bin")
  if grep -q "not found" <<<"$libs"; then
    fail "$bin misses a library: $libs"
  fi
  if grep -qE "RPATH|RUNPATH" <<<"$(readelf -d "$bin")"; then
    fail "$bin has an RPATH, which a /usr install does not need"
  fi
done

for page in man1/yulotifyctl.1 man5/yulotifyd-queues.5 man8/yulotifyd.8; do
  file=/usr/share/man/$page.gz
  [[ -f $file ]] || fail "$file is not installed"
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l "$file" 2>&1 >/dev/null)
  [[ -z $warnings ]] || fail "man $page: $warnings"
  grep -q "^NAME" <<<"$(LC_ALL=C.UTF-8 man -l "$file" 2>/dev/null)" || fail "man $page shows no NAME"
done

# The development package: a consumer builds and runs with pkg-config.
cat >"$work/consumer.cc" <<'EOF'
#include <yulotifyd/queue_consumer.h>

int main() {
  YULO::YULOTIFYD::QueueConsumer consumer("/nonexistent/events.queue");
  return consumer.Consume().ok ? 0 : 1;
}
EOF
# shellcheck disable=SC2046  # pkg-config's output is a list of words
g++ -std=c++17 -o "$work/consumer" "$work/consumer.cc" $(pkg-config --cflags --libs yulotifyd) ||
  fail "a consumer does not build against libyulotifyd-dev"
"$work/consumer" || fail "the consumer built against libyulotifyd-dev does not run"

echo "== purge"
apt-get purge -y -qq "${installed[@]}" >/dev/null
installed=()
echo "== packages built, lint-clean, installed and purged; they are in $out"
