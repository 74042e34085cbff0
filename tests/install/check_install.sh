#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a consumer against it
# twice: through find_package(KWQImage) and through pkg-config kwqimage; then runs the installed
# kwq and imports the installed Python module.
#   check_install.sh BUILD_DIR SOURCE_DIR WORK_DIR
set -euo pipefail
build=$1 source=$2 work=$3
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'libKWQImage.so.1' -printf '%h\n' | head -n1)

cmake -S "$source/consumer" -B "$work/cmake-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
c++ -std=c++20 "$source/consumer/main.cc" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs kwqimage)
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer"
# The Qt component, when this build made it.
if [ -f "$(dirname "$libdir")/$(basename "$libdir")/cmake/KWQImage/KWQImageQtTargets.cmake" ]; then
  cmake -S "$source/consumer_qt" -B "$work/qt-build" -G Ninja \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
  cmake --build "$work/qt-build" >/dev/null
  QT_QPA_PLATFORM=offscreen LD_LIBRARY_PATH="$libdir" "$work/qt-build/consumer_qt"
fi
# Installed programs and the Python module find the installed libraries through their own
# run paths: nothing on the loader's path, and the prefix is nowhere the loader looks.
env -u LD_LIBRARY_PATH "$work/prefix/bin/kwq" capture --camera synthetic --frames 30 --json \
  >"$work/capture.json"
python3 -c 'import json, sys; sys.exit(json.load(open(sys.argv[1]))["frames"] != 30)' \
  "$work/capture.json" ||
  { echo "installed kwq did not deliver 30 frames:"; cat "$work/capture.json"; exit 1; }
pydir=$(find "$work/prefix" -name _kwqimage*.so -printf '%h\n' | head -n1)
if [ -n "$pydir" ]; then
  (cd "$work" && env -u LD_LIBRARY_PATH PYTHONPATH="$(dirname "$pydir")" python3 -c \
    'import kwqimage, sys; sys.exit(0 if kwqimage.__file__.startswith(sys.argv[1]) else 1)' \
    "$(dirname "$pydir")")
fi
echo "install check passed"
