#!/bin/bash
# Builds chassis-mgr and runs every test: the unit tests (CTest) and the
# system tests (pytest, the real daemon in a sandbox root).
#   scripts/test.sh                      # build/ , plain build
#   scripts/test.sh --sanitize address   # build-asan/ , AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh --sanitize thread    # build-tsan/ , ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=none
while [ $# -gt 0 ]; do
    case "$1" in
        --sanitize) sanitize="$2"; shift 2 ;;
        *) echo "usage: scripts/test.sh [--sanitize address|thread]" >&2; exit 2 ;;
    esac
done

case "$sanitize" in
    none) build=build ;;
    address) build=build-asan ;;
    thread) build=build-tsan ;;
    *) echo "test.sh: --sanitize takes address or thread" >&2; exit 2 ;;
esac

echo "== installing missing packages"
bash scripts/install-deps.sh test

echo "== configuring $build (sanitizers: $sanitize)"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCHMGR_WERROR=ON \
      -DCHMGR_SANITIZE="$sanitize" > "$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }

echo "== building"
cmake --build "$build" -j"$(nproc)"

# Sanitized builds run several times slower: every wait of the tests is scaled.
if [ "$sanitize" != none ]; then
    export CHMGR_TEST_TIMEOUT_FACTOR="${CHMGR_TEST_TIMEOUT_FACTOR:-5}"
fi

export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1

echo "== unit tests"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"

echo "== system tests"
status=0
CHMGR_BUILD_DIR="$PWD/$build" /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/system || status=$?
if [ "$status" -eq 5 ]; then
    echo "test.sh: pytest collected no system test" >&2
fi
exit "$status"
