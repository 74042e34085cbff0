#!/usr/bin/env bash
# Builds the Debian packages from a configured build folder, then tries them as a new machine
# would: a minimal Debian root made with debootstrap, the packages installed there with apt
# (which pulls every dependency from Debian's mirror), and in that root a consumer built
# against libkwqimage-dev, `kwq capture --frames 30` on the synthetic camera and
# `python3 -c 'import kwqimage'`. Needs root (debootstrap, chroot) and Debian's mirror.
#   scripts/package-test.sh [BUILD_DIR]     (default: build; the packages land in BUILD_DIR/packages)
#   scripts/package-test.sh --make-root DIR  only makes the clean root (CI starts this early, in
#                                            the background: it waits on the mirror, not the CPU)
# KWQ_PACKAGE_ROOT=DIR uses (or makes) the clean root there and keeps it; a temporary one is
# removed.
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD

# The mirror apt is configured with here.
mirror=$(sed -n 's/^URIs: *\([^ ]*debian\)\/*$/\1/p' /etc/apt/sources.list.d/debian.sources \
  2>/dev/null | head -n1)
mirror=${mirror:-$(awk '$1 == "deb" && $2 !~ /security/ {print $2; exit}' \
  /etc/apt/sources.list 2>/dev/null)}
mirror=${mirror:-http://deb.debian.org/debian}
make_root() {  # make_root DIR: a minimal bookworm root, unless DIR already holds one
  local t0=$SECONDS
  if [ ! -x "$1/usr/bin/apt-get" ]; then
    debootstrap --variant=minbase bookworm "$1" "$mirror" >"$1.debootstrap.log" 2>&1 ||
      { tail -n 20 "$1.debootstrap.log"; return 1; }
  fi
  echo "package-test: debootstrap $((SECONDS - t0)) s"
}
if [ "${1:-}" = "--make-root" ]; then
  make_root "$2"
  exit
fi
build=${1:-build}

# Packages install under /usr, where Debian's multiarch library folder is the library path.
cmake -S . -B "$build" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$build" --parallel "$(nproc)" --target KWQImage kwq _kwqimage KWQImageQt
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB >/dev/null)
debs=("$build"/packages/*.deb)
for deb in "${debs[@]}"; do
  echo "$(basename "$deb"):"
  dpkg-deb -f "$deb" Package Version Depends Recommends | sed 's/^/  /'
done

root=${KWQ_PACKAGE_ROOT:-$(mktemp -d /tmp/kwq-package-root.XXXXXX)}
cleanup() {
  umount "$root/proc" 2>/dev/null || true
  [ -n "${KWQ_PACKAGE_ROOT:-}" ] || rm -rf "$root" "$root.debootstrap.log" "$root.apt.log"
}
trap cleanup EXIT

make_root "$root"
mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
cp /etc/resolv.conf "$root/etc/resolv.conf"
# The same sources as here (updates and security too), so the packages' versions match.
rm -f "$root/etc/apt/sources.list"
cp -r /etc/apt/sources.list.d "$root/etc/apt/" 2>/dev/null || true
if [ -f /etc/apt/sources.list ]; then cp /etc/apt/sources.list "$root/etc/apt/"; fi
rm -f "$root"/etc/apt/sources.list.d/*disabled*
# A dated snapshot mirror's Release files would otherwise count as expired.
printf 'Acquire::Check-Valid-Until "false";\n' >"$root/etc/apt/apt.conf.d/99kwq-test"
rm -rf "$root/tmp/kwq" && mkdir -p "$root/tmp/kwq/debs"
cp "${debs[@]}" "$root/tmp/kwq/debs/"
cp -r "$source/tests/install/consumer" "$root/tmp/kwq/consumer"

t0=$SECONDS
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
  DEBIAN_FRONTEND=noninteractive "$@"; }
in_root apt-get update -qq
in_root apt-get install -y -qq --no-install-recommends \
  $(cd "$root/tmp/kwq/debs" && printf '/tmp/kwq/debs/%s ' *.deb) cmake g++ make \
  >"$root.apt.log" 2>&1 || { tail -n 30 "$root.apt.log"; exit 1; }
echo "package-test: apt install of the packages and a compiler $((SECONDS - t0)) s"

in_root sh -euc '
  cd /tmp/kwq
  cmake -S consumer -B consumer-build >/dev/null
  cmake --build consumer-build >/dev/null
  ./consumer-build/consumer
  c++ -std=c++20 consumer/main.cc -o pc-consumer $(pkg-config --cflags --libs kwqimage)
  ./pc-consumer
  kwq capture --camera synthetic --frames 30 --json >capture.json
  python3 -c "import json, sys; sys.exit(json.load(open(\"capture.json\"))[\"frames\"] != 30)" ||
    { cat capture.json; exit 1; }
  echo "kwq capture: 30 frames"
  python3 -c "import kwqimage; print(\"import kwqimage:\", kwqimage.__file__)"
'
echo "package-test passed"
