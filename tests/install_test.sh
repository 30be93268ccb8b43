#!/usr/bin/env bash
# Installs the build into a scratch root (DESTDIR), runs the installed zelkctl
# from there, builds a small C host against the installed header and
# pkg-config file that starts and stops the engine, and unpacks the Debian
# package into a second scratch root and runs the packaged zelkctl.
# Arguments: the build folder and a scratch folder of this test's own.
set -euo pipefail
build="$1"
scratch="$2"
rm -rf "$scratch"
mkdir -p "$scratch"
stage="$scratch/stage"

fail() { echo "FAIL: $*" >&2; exit 1; }

DESTDIR="$stage" cmake --install "$build" >"$scratch/install.log"
pcfile="$(find "$stage" -name zelk.pc | head -1)"
[ -n "$pcfile" ] || fail "no zelk.pc installed"
prefix="$(sed -n 's/^prefix=//p' "$pcfile")"
root="$stage$prefix"
for f in bin/zelkctl sbin/zelk-agent include/zelk.h share/man/man1/zelkctl.1 \
         share/man/man8/zelk-agent.8 share/man/man5/zelk-agent.conf.5; do
    [ -e "$root/$f" ] || fail "missing $f"
done
[ -n "$(find "$stage" -path '*etc/zelk/zelk-agent.conf')" ] || fail "no default configuration"
[ -n "$(find "$stage" -name zelk-agent.service)" ] || fail "no unit installed"
[ -n "$(find "$stage" -path '*zelk/policy.d' -type d)" ] || fail "no policy directory"

# systemd accepts the unit (pointed at the staged agent), where it is installed.
if command -v systemd-analyze >/dev/null 2>&1; then
    unit="$(find "$stage" -name zelk-agent.service | head -1)"
    sed "s#=[^ ]*/sbin/zelk-agent#=$root/sbin/zelk-agent#" "$unit" >"$scratch/zelk-agent.service"
    systemd-analyze verify --man=no "$scratch/zelk-agent.service" ||
        fail "systemd-analyze verify rejected the unit"
else
    echo "systemd-analyze not installed: unit not verified"
fi

# The installed programs find the installed library by themselves.
out="$("$root/bin/zelkctl" --version)" || fail "installed zelkctl --version failed"
grep -q "zelkctl" <<<"$out" || fail "unexpected version text: $out"
"$root/sbin/zelk-agent" --version >/dev/null || fail "installed zelk-agent --version failed"

# A host built from the installed header and pkg-config file alone.
cat >"$scratch/host.c" <<'HOST'
#include <stdio.h>
#include <string.h>
#include <zelk.h>
int main(int argc, char** argv) {
    ac_engine_start_s start;
    memset(&start, 0, sizeof(start));
    start.dbPath = argv[1];
    start.logMask = 4;
    unsigned rc = engine_start(&start);
    if (rc != 0) { fprintf(stderr, "engine_start: %#x\n", rc); return 1; }
    rc = engine_stop();
    if (rc != 0) { fprintf(stderr, "engine_stop: %#x\n", rc); return 1; }
    puts("host ok");
    return 0;
}
HOST
pc="$(dirname "$pcfile")"
flags="$(PKG_CONFIG_PATH="$pc" pkg-config --define-variable=prefix="$root" --cflags --libs zelk)"
cc -o "$scratch/host" "$scratch/host.c" $flags
libdir="$(PKG_CONFIG_PATH="$pc" pkg-config --define-variable=prefix="$root" --variable=libdir zelk)"
hostout="$(cd "$scratch" && LD_LIBRARY_PATH="$libdir" ./host "$scratch/host.db")" ||
    fail "host built against the installed files did not start the engine"
grep -q "host ok" <<<"$hostout" || fail "unexpected host output: $hostout"
[ -f "$scratch/host.db" ] || fail "host did not create its database"

# The Debian package, unpacked and run from its own root.
(cd "$build" && cpack -G DEB -B "$scratch/cpack" >"$scratch/cpack.log" 2>&1) ||
    fail "cpack failed: $(tail -5 "$scratch/cpack.log")"
deb="$(ls "$scratch"/cpack/*.deb | head -1)"
# Read whole before matching: grep -q stopping early would fail the pipe.
info="$(dpkg-deb -I "$deb")"
grep -q "Depends:.*libsqlite3" <<<"$info" || fail "package lacks its dependencies"
dpkg-deb -x "$deb" "$scratch/pkgroot"
pkgctl="$(find "$scratch/pkgroot" -path '*bin/zelkctl' | head -1)"
[ -n "$pkgctl" ] || fail "package has no zelkctl"
pkgversion="$("$pkgctl" --version)" || fail "packaged zelkctl --version failed"
grep -q "zelkctl" <<<"$pkgversion" || fail "unexpected packaged version text: $pkgversion"
echo "install test passed"
