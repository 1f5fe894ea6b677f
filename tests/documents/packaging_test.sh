#!/usr/bin/env bash
# Installs the build to a private prefix and has the desktop's own tools accept what landed:
# the desktop entry validates, the MIME package compiles, GLib's type lookup (what file
# managers and file choosers use) names the project types, and the entry is offered for them.
# Usage: packaging_test.sh BUILD_DIR
set -euo pipefail

build_dir=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/corvane-packaging-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$prefix" >/dev/null

for f in bin/corvane-host bin/corvanectl share/applications/io.corvane.host.desktop \
         share/mime/packages/io.corvane.host.xml \
         share/icons/hicolor/scalable/apps/io.corvane.host.svg; do
  [[ -s $prefix/$f ]] || fail "$f was not installed"
done

desktop-file-validate "$prefix/share/applications/io.corvane.host.desktop" ||
  fail "desktop-file-validate refused the desktop entry"
grep -qx 'Exec=corvane-host %U' "$prefix/share/applications/io.corvane.host.desktop" ||
  fail "the entry does not pass its documents as URIs"

# What a package's triggers (or the user, for a home install) run after installing.
update-mime-database "$prefix/share/mime" >/dev/null 2>&1 || fail "update-mime-database failed"
update-desktop-database "$prefix/share/applications" || fail "update-desktop-database failed"

# Only the prefix and the system's own data; nothing of the user running the test.
export XDG_DATA_HOME=$work/home-data XDG_DATA_DIRS=$prefix/share:/usr/share
export XDG_CONFIG_HOME=$work/home-config XDG_CONFIG_DIRS=$work/no-config GIO_USE_VFS=local
# GLib offers an application only when its Exec program is on the PATH.
export PATH=$prefix/bin:$PATH
mkdir -p "$XDG_DATA_HOME" "$XDG_CONFIG_HOME"

for pair in x.CORVANE=application/x-corvane-project Yard.CorvanePack=application/x-corvane-pack \
            notes.corvane.txt=text/plain; do
  name=${pair%%=*} expected=${pair#*=}
  printf '{"layout": 1}\n' >"$work/$name"  # not empty: the lookup also reads the content
  got=$(gio info -a standard::content-type "$work/$name" | sed -n 's/^ *standard::content-type: //p')
  [[ $got == "$expected" ]] || fail "$name is '$got', expected '$expected'"
done

# The desktop entry is among the applications offered for both types.
for type in application/x-corvane-project application/x-corvane-pack; do
  offered=$(gio mime "$type")  # not piped into grep -q: an early exit would fail the pipe
  [[ $offered == *io.corvane.host.desktop* ]] || fail "the desktop entry is not offered for $type"
done
echo "packaging: all checks passed"
