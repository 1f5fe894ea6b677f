#!/usr/bin/env bash
# Boots Debian's kernel under qemu (software emulation) with this machine's own root file system,
# read-only over virtio-9p, and runs guest-job.sh there; its results land in OUT_DIR.
# Usage: run-guest.sh KERNEL_CACHE OUT_DIR JOB_ARGS...   Exit 77 when the guest cannot be had.
set -euo pipefail
cache=$(realpath -m "$1") out=$(realpath -m "$2")
shift 2
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$out" && mkdir -p "$out"
skip() { echo "SKIPPED: device suite: $*" | tee "$out/skipped"; exit 77; }

command -v qemu-system-x86_64 >/dev/null || skip "no qemu-system-x86_64 (run scripts/setup.sh)"
[[ -x /bin/busybox ]] || skip "no busybox-static (run scripts/setup.sh)"
kernels=("$cache"/boot/vmlinuz-*)
kernel=${kernels[0]}
[[ -e "$kernel" ]] || skip "no kernel in $cache (run scripts/setup.sh)"
version=${kernel##*/vmlinuz-}
modules="$cache/lib/modules/$version"

# The sanitizer settings of the test run go along (the guest starts with an empty environment).
for v in ASAN_OPTIONS UBSAN_OPTIONS TSAN_OPTIONS; do
  [[ -v $v ]] && printf 'export %s=%q\n' "$v" "${!v}"
done >"$out/env"

# The initramfs: busybox and the modules that mount the shared root.
initrd="$out/initrd"
mkdir -p "$initrd"/{bin,mod,proc,sys,dev,lower,rw,root}
cp /bin/busybox "$initrd/bin/"
for m in virtio_pci 9pnet_virtio 9p overlay; do
  modprobe -d "$cache" -S "$version" --show-depends "$m" | awk '$1 == "insmod" {print $2}'
done | awk '!seen[$0]++' | while read -r ko; do
  cp "$ko" "$initrd/mod/"
  echo "${ko##*/}" >>"$initrd/mod/order"
done
cat >"$initrd/init" <<INIT
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc && mount -t sysfs sys /sys && mount -t devtmpfs dev /dev
for m in \$(cat /mod/order); do insmod /mod/\$m; done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=262144 root /lower
mount -t tmpfs -o size=512m tmpfs /rw && mkdir /rw/upper /rw/work
mount -t overlay -o lowerdir=/lower,upperdir=/rw/upper,workdir=/rw/work overlay /root
mount -t tmpfs tmpfs /root/run && mkdir /root/run/device-out
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 out /root/run/device-out
umount /proc /sys; umount /dev
exec switch_root /root $here/guest-job.sh $modules $*
INIT
chmod +x "$initrd/init"
(cd "$initrd" && find . | /bin/busybox cpio -o -H newc 2>/dev/null) | gzip -1 >"$out/initrd.img"
rm -rf "$initrd"

timeout --kill-after=10 900 qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 2048 \
  -nographic -no-reboot -nic none -kernel "$kernel" -initrd "$out/initrd.img" \
  -append "console=ttyS0 panic=-1 quiet loglevel=3" \
  -virtfs local,path=/,mount_tag=root,security_model=none,readonly=on,multidevs=remap \
  -virtfs local,path="$out",mount_tag=out,security_model=none \
  </dev/null >"$out/console.log" 2>&1 || true
tail -n 30 "$out/console.log"
[[ -e "$out/done" ]] || { echo "the guest did not finish its job"; exit 1; }
