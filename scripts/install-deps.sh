#!/bin/bash
# Installs the Debian packages chassis-mgr needs for a purpose, when missing.
#   scripts/install-deps.sh build|test|demo|fuzz|bench|package|ci ...
# As root it runs apt-get; otherwise it prints the command to run.
set -euo pipefail

packages_for() {
    case "$1" in
        build) echo g++ cmake ninja-build make ;;
        test) packages_for build; echo googletest libgtest-dev libgmock-dev python3 python3-pytest procps \
                  prometheus prometheus-node-exporter ;;
        demo) packages_for build; echo python3 procps ;;
        fuzz) echo clang libclang-rt-14-dev ;;
        bench) packages_for build; echo libbenchmark-dev ;;
        package) packages_for build; echo debhelper devscripts dpkg-dev fakeroot lintian systemd groff-base mandoc man-db ;;
        ci) for p in test fuzz bench package; do packages_for "$p"; done ;;
        *) echo "install-deps: unknown purpose '$1' (build, test, demo, fuzz, bench, package, ci)" >&2; exit 2 ;;
    esac
}

wanted=()
for purpose in "${@:-build}"; do
    for pkg in $(packages_for "$purpose"); do wanted+=("$pkg"); done
done

missing=()
for pkg in $(printf '%s\n' "${wanted[@]}" | sort -u); do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all packages for '$*' are installed"
    exit 0
fi

echo "install-deps: installing ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: not root; run: sudo apt-get install -y ${missing[*]}" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
