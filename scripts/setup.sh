#!/usr/bin/env bash
# Installs every Debian package the build and the tests need. Quick when all are present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev valgrind
  libglib2.0-dev libgtk-3-dev adwaita-icon-theme
  libsdl2-dev
  xvfb xauth
  librsvg2-dev
  libxtst-dev
  avahi-daemon avahi-utils dbus iproute2 util-linux libavahi-client-dev libavahi-glib-dev
  desktop-file-utils shared-mime-info libx11-dev
  syncthing curl jq
  gcovr
  libv4l-dev libudev-dev libjpeg62-turbo-dev
  libplist-dev libgdk-pixbuf-2.0-dev zlib1g-dev python3
  webp-pixbuf-loader heif-gdk-pixbuf
  qemu-system-x86 busybox-static kmod udev v4l-utils
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
# The device tests boot Debian's kernel under qemu; it is unpacked under build/, not installed.
fetch_kernel() { "$(dirname "$0")/device-kernel.sh" || echo "setup: no kernel: device tests skip"; }
if [[ ${#missing[@]} -eq 0 ]]; then
  fetch_kernel
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo_cmd=()
[[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
# Keep package scripts from starting daemons (avahi-daemon would go live on every interface);
# the tests start their own private one. Only a policy file we created is removed.
if [[ ! -e /usr/sbin/policy-rc.d ]]; then
  printf '#!/bin/sh\nexit 101\n' | "${sudo_cmd[@]}" tee /usr/sbin/policy-rc.d >/dev/null
  "${sudo_cmd[@]}" chmod +x /usr/sbin/policy-rc.d
  trap '"${sudo_cmd[@]}" rm -f /usr/sbin/policy-rc.d' EXIT
fi
"${sudo_cmd[@]}" apt-get update -q
"${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends -o DPkg::Lock::Timeout=300 "${missing[@]}"
fetch_kernel
