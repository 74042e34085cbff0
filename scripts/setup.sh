#!/usr/bin/env bash
# Installs the Debian packages KWQImage needs (only when something is missing), then configures
# and builds the project in ./build. Safe to run again; works as root or through sudo.
#   scripts/setup.sh [extra cmake arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libopencv-dev opencv-data opencv-doc libdlib-dev libdlib-data
  libcairo2-dev libpango1.0-dev libglib2.0-dev fonts-dejavu-core
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly gstreamer1.0-libav gstreamer1.0-tools
  libzxing-dev nlohmann-json3-dev
  # Machine-readable zones: the OCR-B font they are printed in (the reader's templates and the
  # synthetic documents), and Tesseract as the peer in the read-rate bench.
  fonts-ocr-b libtesseract-dev tesseract-ocr-eng
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  # The synthetic camera's portrait scene films skimage's astronaut photograph.
  python3-skimage
  qt6-base-dev xvfb
  # The kwqimage Python module and its Dask batch runner.
  python3-dev pybind11-dev python3-numpy python3-dask python3-distributed python3-pytest
  # The webcam tests: the kernel's virtual camera driver in a QEMU guest (tests/vivid).
  qemu-system-x86 linux-image-amd64 busybox-static v4l-utils
  # The API reference, and the clean root the Debian packages are tried in.
  doxygen debootstrap dpkg-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi

# Our developers' and CI's build: warnings are errors (a user's own build keeps them warnings).
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKWQ_WERROR=ON "$@" >/dev/null
cmake --build build --parallel "$(nproc)"
