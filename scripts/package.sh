#!/bin/bash
# Builds the Debian packages chassis-mgr and chassis-mgr-sim.
#   scripts/package.sh [--out DIR]      # default DIR: build-deb/ in the repository
#
# The sources are exported first into DIR/src/ (the files git knows about,
# committed or not, without ignored ones; a plain copy without build
# directories when this is no git checkout), and the packages are built
# there with `dpkg-buildpackage -us -uc -b`.  So the build always starts from
# a clean tree, and nothing is written into the working tree or beside it.
# The .deb, .buildinfo and .changes files end up in DIR, the build log in
# DIR/build.log.  As root, missing Debian packages are installed first.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

out=build-deb
while [ $# -gt 0 ]; do
    case "$1" in
        --out) out="$2"; shift 2 ;;
        *) echo "usage: scripts/package.sh [--out DIR]" >&2; exit 2 ;;
    esac
done
mkdir -p "$out"
out=$(cd "$out" && pwd)

echo "== installing missing packages"
bash scripts/install-deps.sh package

version=$(dpkg-parsechangelog -l debian/changelog -S Version)
src="$out/src/chassis-mgr-$version"
echo "== exporting the sources of chassis-mgr $version into $src"
rm -rf "$out/src"
mkdir -p "$src"

export_git_files() {
    # Tracked and untracked files, without the ignored ones; files deleted
    # from the working tree but still in the index are skipped.
    git -C "$repo" ls-files -z --cached --others --exclude-standard \
        | while IFS= read -r -d '' path; do
              [ -f "$repo/$path" ] || [ -L "$repo/$path" ] && printf '%s\0' "$path"
          done \
        | sort -zu \
        | tar -C "$repo" --null -T - -cf - \
        | tar -C "$src" -xf -
}

export_plain_copy() {
    tar -C "$repo" --exclude='./.git' --exclude='./build*' --exclude='./obj-*' \
        --exclude='./debian/.debhelper' --exclude='./debian/chassis-mgr' \
        --exclude='./debian/chassis-mgr-sim' --exclude='./debian/tmp' \
        --exclude='./debian/files' --exclude='./debian/*.substvars' \
        --exclude='./debian/*.debhelper.log' --exclude='./debian/debhelper-build-stamp' \
        --exclude='__pycache__' -cf - . | tar -C "$src" -xf -
}

if git -C "$repo" rev-parse --is-inside-work-tree > /dev/null 2>&1; then
    export_git_files
else
    export_plain_copy
fi

echo "== building the packages (log: $out/build.log)"
rm -f "$out"/chassis-mgr*.deb "$out"/chassis-mgr_*.buildinfo "$out"/chassis-mgr_*.changes
: "${DEB_BUILD_OPTIONS:=parallel=$(nproc)}"
export DEB_BUILD_OPTIONS
status=0
(cd "$src" && dpkg-buildpackage -us -uc -b) > "$out/build.log" 2>&1 || status=$?
if [ "$status" -ne 0 ]; then
    tail -n 25 "$out/build.log" >&2
    echo "package.sh: dpkg-buildpackage failed with status $status (full log: $out/build.log)" >&2
    exit 1
fi

mv "$out"/src/chassis-mgr*.deb "$out"/src/chassis-mgr_*.buildinfo "$out"/src/chassis-mgr_*.changes "$out"/
echo "== packages in $out:"
(cd "$out" && ls -1 chassis-mgr*.deb chassis-mgr_*.changes)
