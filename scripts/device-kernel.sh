#!/usr/bin/env bash
# Fetches Debian's current kernel package and unpacks it (not installed) into build/device-kernel,
# for the device tests, which boot it under qemu. Quick when it is already there.
set -euo pipefail
cd "$(dirname "$0")/.."
cache=build/device-kernel
kernel_package() {
  apt-cache depends linux-image-amd64 2>/dev/null |
    sed -n 's/.*Depends: \(linux-image-[0-9].*\)/\1/p' | head -1
}
package=$(kernel_package)
if [[ -z "$package" ]]; then  # apt's lists were never fetched on this machine
  sudo_cmd=()
  [[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -q >/dev/null || true
  package=$(kernel_package)
fi
[[ -n "$package" ]] || { echo "device-kernel: no linux-image-amd64 in apt's lists" >&2; exit 1; }
version=${package#linux-image-}
[[ -e "$cache/boot/vmlinuz-$version" && -e "$cache/lib/modules/$version/modules.dep" ]] && exit 0
echo "device-kernel: fetching $package"
scratch=$(mktemp -d)
chmod 777 "$scratch"  # apt fetches as its own user
trap 'rm -rf "$scratch"' EXIT
(cd "$scratch" && apt-get download -q "$package")
rm -rf "$cache"
mkdir -p "$cache"
dpkg -x "$scratch"/"$package"_*.deb "$cache"
depmod -b "$cache" "$version"
