#!/bin/bash
# The guest's first process: mounts the basics, starts udev, runs the device tests, powers off.
# Usage: guest-job.sh MODULES_DIR TEST_BINARY
modules=$1 binary=$2 out=/run/device-out
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
. $out/env
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /dev/pts /dev/shm && mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /tmp
mkdir -p /lib/modules && mount --bind "${modules%/*}" /lib/modules
{
  /lib/systemd/systemd-udevd --daemon
  udevadm trigger && udevadm settle
  modprobe vivid n_devs=1 && modprobe uhid && udevadm settle
  echo "guest ready after ${SECONDS}s"
  "$binary" --gtest_output=json:$out/results.json
  echo "tests done after ${SECONDS}s"
} >"$out/job.log" 2>&1
touch "$out/done"
sync
echo o >/proc/sysrq-trigger
sleep 30
