#!/usr/bin/env bash
# Builds the installable packages into build/packages/: the Debian package of the Linux program (CPack, from
# the package preset, installed under /usr), and for Windows the programs in one folder, as a zip and as an
# NSIS installer (from the windows preset; the MinGW runtime is linked into them statically).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh package
version=$(sed -n 's/^project(VelmarTaskScheduler VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
out=$PWD/build/packages
mkdir -p "$out"
rm -rf "$out"/velmartaskscheduler_*.deb "$out"/VelmarTaskScheduler-*

cmake --preset package >/dev/null
cmake --build --preset package
(cd build/package && cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"

cmake --preset windows >/dev/null
cmake --build --preset windows --target VelmarTaskScheduler velmar-client
folder=$out/VelmarTaskScheduler-$version-win64
mkdir -p "$folder"
cp build/windows/app/VelmarTaskScheduler.exe build/windows/tools/velmar-client.exe "$folder/"
(cd "$out" && cmake -E tar cf "VelmarTaskScheduler-$version-win64.zip" --format=zip "VelmarTaskScheduler-$version-win64")
makensis -V2 -DVERSION="$version" -DPROGRAM_DIR="$folder" -DICON="$PWD/app/VelmarTaskScheduler.ico" \
    -DOUTFILE="$out/VelmarTaskScheduler-$version-win64-installer.exe" packaging/windows/VelmarTaskScheduler.nsi
rm -rf "$folder"
ls "$out"
