#!/bin/sh
# The first process of a user-mode-linux guest that has project quotas, which few kernels of test machines do. The
# guest's root is the host's, read-only; it has a disk of its own, /dev/ubda, an ext4 image. From the kernel's command
# line:
#   KX_OUT       folder of the host that the guest writes to, seen at /mnt/out
#   KX_GUEST     the program that does the work, run with the lab's tools about it
# Whatever happens, the guest is turned off in the end; what was said on the way is in /mnt/out/guest.log.
export PATH=/usr/sbin:/sbin:/usr/bin:/bin HOME=/run TMPDIR=/run PYTHONDONTWRITEBYTECODE=1

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs dev /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts -o ptmxmode=666 devpts /dev/pts
# Folders that programs have built in: the host's are not to be seen, and could not be written to.
for folder in /dev/shm /run /mnt /var/opt /var/lib/snmp /var/lib/lxc; do mount -t tmpfs tmpfs $folder; done
chmod 755 /run /mnt /var/opt
mkdir /mnt/out /mnt/disk
# Before and after Linux 6.8.
mount -t hostfs none /mnt/out -o "$KX_OUT" || mount -t hostfs none /mnt/out -o "hostfs=$KX_OUT"
exec >/mnt/out/guest.log 2>&1

modules=/usr/lib/uml/modules/$(uname -r)/kernel
for module in fs/quota/quota_tree fs/quota/quota_v2 lib/crc-ccitt net/ipv6/ipv6 net/llc/llc net/802/stp \
    net/bridge/bridge drivers/net/veth; do
    busybox insmod "$modules/$module.ko" || echo "no module $module"
done
mount -t cgroup2 cgroup2 /sys/fs/cgroup
echo "+memory +pids" >/sys/fs/cgroup/cgroup.subtree_control
mount -t ext4 -o prjquota /dev/ubda /mnt/disk
ip link set lo up

$KX_GUEST
echo "ended with status $?"
umount /mnt/disk
sync
busybox poweroff -f
