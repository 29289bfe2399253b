#!/usr/bin/env bash
# Builds the installable packages into build/packages/: the Debian package of the Linux program (CPack, from
# the package preset, installed under /usr).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh package
cmake --preset package >/dev/null
cmake --build --preset package
mkdir -p build/packages
rm -f build/packages/*.deb
(cd build/package && cpack -G DEB -B "$PWD/../packages" >/dev/null)
rm -rf build/packages/_CPack_Packages
ls build/packages/*.deb
