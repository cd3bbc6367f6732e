#!/usr/bin/env bash
# Builds the Debian packages config-manager and config-manager-devtools in build-package and puts
# them in packages/, then checks them with lintian when it is installed. Installs what is missing
# first (but not lintian, which the packages do not need).
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
# Debian's package checker, where it is installed (apt-get install lintian); the overrides the
# packages carry explain each warning that is meant so.
if command -v lintian >/dev/null; then
    lintian --fail-on error,warning packages/config-manager_*.deb packages/config-manager-devtools_*.deb
fi
