#!/usr/bin/env bash
# Builds the Debian packages config-manager and config-manager-devtools in build-package and puts
# them in packages/. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
dir=build-package
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCM_BUILD_TESTS=OFF -DCM_BUILD_BENCH=OFF \
    -DCM_SANITIZE_ADDRESS=OFF -DCM_SANITIZE_THREAD=OFF >"$dir.configure.log" 2>&1 ||
    { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j"$(nproc)"
(cd "$dir" && cpack -B "$PWD/../packages")
ls -l packages/*.deb
