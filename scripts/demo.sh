#!/bin/bash
# Runs chassis-mgr on the simulated chassis: builds the two programs the
# demonstration runs, the daemon and chmgrctl, in build/ (nothing else),
# then tools/chmgr-demo creates a sandbox root with the emulated hardware
# tree and the simulated switch SDK, starts the daemon and the hardware
# emulator, inserts line cards and shows each slot on its way to service.
#   scripts/demo.sh [options of tools/chmgr-demo]
set -euo pipefail
cd "$(dirname "$0")/.."
echo "== installing missing packages"
bash scripts/install-deps.sh demo
echo "== building"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > build.configure.log 2>&1 \
    || { cat build.configure.log; exit 1; }
cmake --build build -j"$(nproc)" --target chassis-mgr chmgrctl
exec /usr/bin/python3 tools/chmgr-demo --build-dir build "$@"
