#!/bin/bash
# Checks the installation and the Debian packages of chassis-mgr (run by CI):
#   1. the packages build from a clean export of the tree (scripts/package.sh);
#   2. lintian finds no error in them (warnings are printed, not fatal);
#   3. each .deb holds exactly the files of packaging/expected/PACKAGE.list;
#   4. the packaged programs run, the packaged demonstration runs from the
#      extracted packages, the maintainer scripts parse, the cards.conf
#      template has its eight lines, the tmpfiles rule creates what it should;
#   5. `systemd-analyze verify` accepts the packaged units (the daemon's, the
#      metrics timer and its service), and the daemon unit's sandboxing
#      does not drop below the level it has now (offline security review);
#   6. every manual page, in the tree and in the package, renders with
#      `man -l` and groff warnings on, without a single warning.
#
#   scripts/check-packaging.sh [--out DIR]     # default DIR: build-deb/
#
# Every check runs even when an earlier one failed (except after a failed
# build); the last line counts them.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 2
repo=$PWD
start=$(date +%s)

out=build-deb
while [ $# -gt 0 ]; do
    case "$1" in
        --out) out="$2"; shift 2 ;;
        *) echo "usage: scripts/check-packaging.sh [--out DIR]" >&2; exit 2 ;;
    esac
done

# The unit's sandboxing may not fall below this (systemd-analyze's exposure
# level times ten; the unit scores 6.0).
SECURITY_THRESHOLD=65

passed=0
failed=0
record() {  # NAME STATUS
    if [ "$2" -eq 0 ]; then
        echo "ok   $1"
        passed=$((passed + 1))
    else
        echo "FAIL $1"
        failed=$((failed + 1))
    fi
}

finish() {
    echo "=== packaging checks finished in $(( $(date +%s) - start )) s"
    echo "check-packaging: $passed passed, $failed failed"
    [ "$failed" -eq 0 ]
    exit $?
}

echo "=== building the packages"
if bash scripts/package.sh --out "$out"; then
    record "packages build from a clean tree" 0
else
    record "packages build from a clean tree" 1
    finish
fi
out=$(cd "$out" && pwd)
version=$(dpkg-parsechangelog -l debian/changelog -S Version)
scratch=$(mktemp -d "${TMPDIR:-/tmp}/chmgr-pkgcheck.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

# --- 2. lintian ---------------------------------------------------------------
echo "=== lintian"
lintian --fail-on error --display-info "$out/chassis-mgr_${version}_"*.changes 2>&1 \
    | grep -v '^running with root privileges is not recommended!$'
record "lintian reports no error" "${PIPESTATUS[0]}"

# --- 3. file lists ------------------------------------------------------------
check_file_list() {  # PACKAGE DEB
    dpkg-deb -c "$2" | awk '{ sub(/^\./, "", $6); print $1, $6 }' > "$scratch/$1.actual"
    python3 - "$repo/packaging/expected/$1.list" "$scratch/$1.actual" <<'EOF'
import re
import sys

def key(mode, path):
    # debhelper compresses only the larger documentation files.
    if path.startswith("/usr/share/doc/"):
        path = re.sub(r"\.gz$", "", path)
    return f"{mode} {path}"

required, optional = set(), set()
for line in open(sys.argv[1]):
    line = line.strip()
    if not line or line.startswith("#"):
        continue
    may_miss = line.startswith("? ")
    mode, path = line[2:].split() if may_miss else line.split()
    (optional if may_miss else required).add(key(mode, path))

actual = {key(*line.split()) for line in open(sys.argv[2]) if line.strip()}
missing = sorted(required - actual)
unexpected = sorted(actual - required - optional)
for entry in missing:
    print(f"  missing:    {entry}")
for entry in unexpected:
    print(f"  unexpected: {entry}")
sys.exit(1 if missing or unexpected else 0)
EOF
}

echo "=== file lists"
for pkg in chassis-mgr chassis-mgr-sim; do
    deb=$(ls "$out/${pkg}_${version}_"*.deb)
    check_file_list "$pkg" "$deb"
    record "$pkg: file list as in packaging/expected/$pkg.list" $?
done

# --- 4. contents --------------------------------------------------------------
root="$scratch/root"
mkdir -p "$root"
for pkg in chassis-mgr chassis-mgr-sim; do
    dpkg-deb -x "$out/${pkg}_${version}_"*.deb "$root"
done

check_programs() {
    local banner status
    banner=$("$root/usr/sbin/chassis-mgr" -V 2>&1); status=$?
    if [ "$status" -ne 0 ] || [ "$banner" != " Tarnel Linux chassis-mgr version $version" ]; then
        echo "  chassis-mgr -V: status $status, printed '$banner'"
        return 1
    fi
    "$root/usr/sbin/chassis-mgr" --no-such-option > /dev/null 2>&1; status=$?
    if [ "$status" -ne 10 ]; then
        echo "  chassis-mgr --no-such-option: status $status instead of 10"
        return 1
    fi
    if ! "$root/usr/bin/chmgrctl" --help > /dev/null; then
        echo "  chmgrctl --help failed"
        return 1
    fi
    if ! /usr/bin/python3 "$root/usr/bin/chmgr-hwemu" --help > /dev/null; then
        echo "  chmgr-hwemu --help failed"
        return 1
    fi
    if ! /usr/bin/python3 "$root/usr/bin/chmgr-demo" --help > /dev/null; then
        echo "  chmgr-demo --help failed"
        return 1
    fi
}

# Runs the packaged demonstration from the extracted packages, as installed:
# it must find the daemon, chmgrctl, the emulator and the systemctl stand-in
# there, and nothing of the source tree.
check_demo() {
    local output status
    output=$(cd "$scratch" && env -u CHMGR_BUILD_DIR -u CHMGR_ROOT \
        "$root/usr/bin/chmgr-demo" --scale 0.005 --timeout 60 2>&1); status=$?
    if [ "$status" -ne 0 ]; then
        printf '  %s\n' "$output" | tail -n 20
        echo "  chmgr-demo exited with status $status"
        return 1
    fi
    grep -q '^Done: slot 6 is empty again' <<< "$output" \
        || { echo "  chmgr-demo did not reach its last step"; return 1; }
    grep -q '^\$ chmgrctl show ' <<< "$output" \
        || { echo "  chmgr-demo showed no chmgrctl output"; return 1; }
}

check_maintainer_scripts() {
    local control="$scratch/control" script rc=0
    dpkg-deb -e "$out/chassis-mgr_${version}_"*.deb "$control"
    for script in postinst postrm; do
        sh -n "$control/$script" || rc=1
        checkbashisms "$control/$script" || rc=1
    done
    grep -q 'addgroup --system --quiet chassismgr' "$control/postinst" || { echo "  postinst creates no group"; rc=1; }
    grep -q 'systemd-tmpfiles .*--create chassis-mgr.conf' "$control/postinst" \
        || { echo "  postinst does not apply the tmpfiles rule"; rc=1; }
    # The group must exist before the tmpfiles rule names it.
    [ "$(grep -n -m1 'addgroup' "$control/postinst" | cut -d: -f1)" -lt \
      "$(grep -n -m1 'systemd-tmpfiles' "$control/postinst" | cut -d: -f1)" ] \
        || { echo "  postinst applies the tmpfiles rule before creating the group"; rc=1; }
    return $rc
}

check_cards_conf_template() {
    local expected="$scratch/cards.conf" slot
    for slot in 1 2 3 4 5 6 7 8; do
        printf '%d       %dG        %dG               %3dG        %d  %s   %s\n' \
            "$slot" 0 0 0 0 Offline enable
    done > "$expected"
    cmp "$expected" "$root/usr/share/chassis-mgr/cards.conf" \
        && cmp "$expected" "$root/usr/share/doc/chassis-mgr/examples/cards.conf"
}

# Applies the packaged tmpfiles rule under a scratch root whose group file
# names chassismgr, and looks at what it created.
check_tmpfiles_rule() {
    local sysroot="$scratch/sysroot" gid=4242 got
    mkdir -p "$sysroot/etc/tarnel" "$sysroot/run"
    printf 'root:x:0:0:root:/root:/bin/sh\n' > "$sysroot/etc/passwd"
    printf 'root:x:0:\nchassismgr:x:%d:\n' "$gid" > "$sysroot/etc/group"
    systemd-tmpfiles --root="$sysroot" --create "$root/usr/lib/tmpfiles.d/chassis-mgr.conf" || return 1
    got=$(stat -c '%a %u %g' "$sysroot/run/chassismgr")
    if [ "$got" != "2755 0 $gid" ]; then
        echo "  /run/chassismgr: mode, owner, group '$got' instead of '2755 0 $gid'"
        return 1
    fi
    [ -f "$sysroot/etc/tarnel/debug_slot" ] || { echo "  /etc/tarnel/debug_slot not created"; return 1; }
}

echo "=== package contents"
check_programs; record "packaged programs run (-V banner, exit status 10, --help)" $?
check_demo; record "packaged chmgr-demo runs from the installed paths" $?
check_maintainer_scripts; record "maintainer scripts parse and create the group first" $?
check_cards_conf_template; record "cards.conf template: eight lines in the data-line format" $?
check_tmpfiles_rule; record "tmpfiles rule: /run/chassismgr 2755 root:chassismgr, debug trigger" $?

# --- 5. the systemd unit ------------------------------------------------------
# `systemd-analyze verify` checks every setting, that ExecStart= names an
# executable and that the Documentation= manual pages exist.  The packaged unit is verified
# as it is, except that ExecStart= points at the binary extracted from the
# package, and MANPATH at the packaged manual pages: nothing needs to be
# installed on the machine running the check.
check_unit() {
    local unit="$scratch/unit/chassis-mgr.service"
    mkdir -p "$scratch/unit"
    sed "s#^ExecStart=/usr/sbin/#ExecStart=$root/usr/sbin/#" \
        "$root/lib/systemd/system/chassis-mgr.service" > "$unit"
    grep -q "^ExecStart=$root/usr/sbin/chassis-mgr " "$unit" || { echo "  unexpected ExecStart= line"; return 1; }
    # A setting it cannot parse is only warned about ("..., ignoring"): any
    # output at all fails the check.
    local output status
    output=$(MANPATH="$root/usr/share/man" systemd-analyze verify "$unit" 2>&1); status=$?
    [ -n "$output" ] && printf '  %s\n' "$output"
    [ "$status" -eq 0 ] && [ -z "$output" ]
}

# The metrics timer and its service, verified the same way: ExecStart=
# points at the extracted chmgrctl.
check_metrics_units() {
    local dir="$scratch/unit" output status
    mkdir -p "$dir"
    sed "s#^ExecStart=/usr/bin/#ExecStart=$root/usr/bin/#" \
        "$root/lib/systemd/system/chassis-mgr-metrics.service" > "$dir/chassis-mgr-metrics.service"
    cp "$root/lib/systemd/system/chassis-mgr-metrics.timer" "$dir/"
    grep -q "^ExecStart=$root/usr/bin/chmgrctl metrics --textfile /var/lib/prometheus/node-exporter/chassis_mgr.prom$" \
        "$dir/chassis-mgr-metrics.service" || { echo "  unexpected ExecStart= line"; return 1; }
    output=$(cd "$dir" && MANPATH="$root/usr/share/man" \
        systemd-analyze verify chassis-mgr-metrics.timer chassis-mgr-metrics.service 2>&1); status=$?
    [ -n "$output" ] && printf '  %s\n' "$output"
    [ "$status" -eq 0 ] && [ -z "$output" ]
}

check_unit_security() {
    local unit="$scratch/unit/chassis-mgr.service"
    systemd-analyze security --offline=true --threshold="$SECURITY_THRESHOLD" "$unit" > "$scratch/security.txt" 2>&1
    local status=$?
    tail -n 1 "$scratch/security.txt"
    return $status
}

echo "=== systemd unit"
check_unit; record "systemd-analyze verify accepts chassis-mgr.service" $?
check_metrics_units; record "systemd-analyze verify accepts chassis-mgr-metrics.timer and .service" $?
check_unit_security; record "unit exposure level at most $SECURITY_THRESHOLD/10" $?

# --- 6. manual pages ----------------------------------------------------------
check_man_page() {  # FILE
    local warnings
    warnings=$( { LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings=w -l "$1" > /dev/null; } 2>&1 )
    if [ -n "$warnings" ]; then
        printf '  %s\n' "$warnings"
        return 1
    fi
    warnings=$( { zcat -f "$1" | groff -man -t -ww -z -Tutf8; } 2>&1 )
    if [ -n "$warnings" ]; then
        printf '  %s\n' "$warnings"
        return 1
    fi
}

echo "=== manual pages"
for page in docs/man/*.[1-8] "$root"/usr/share/man/man*/*.gz; do
    [ -e "$page" ] || continue
    check_man_page "$page"; record "man page renders without warnings: ${page#"$root"}" $?
done

finish
