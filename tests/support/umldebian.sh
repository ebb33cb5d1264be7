#!/bin/sh
# The first process of a user-mode-linux guest that becomes a Debian with its own systemd: a whole machine, with control
# groups of version 2 that really limit, which a namespace on the machine cannot have. From the kernel's command line:
#   KX_ROOT      the Debian, as a tar file
#   KX_OUT       folder of the host, seen at /mnt: "script" in it is run once the system is up, what it prints goes to
#                "output" and its status to "status"; "files" in it is copied over the root
# Whatever happens, the guest is turned off in the end.
export PATH=/usr/sbin:/sbin:/usr/bin:/bin

mount -t proc proc /proc
mount -t tmpfs -o mode=755,size=80% tmpfs /mnt
cd /mnt
mkdir tmp
# Before and after Linux 6.8.
mount -t hostfs none tmp -o "$KX_OUT" || mount -t hostfs none tmp -o "hostfs=$KX_OUT"
exec >tmp/boot.log 2>&1
for module in lib/crc-ccitt net/ipv6/ipv6 net/llc/llc net/802/stp net/bridge/bridge drivers/net/veth; do
    busybox insmod "/usr/lib/uml/modules/$(uname -r)/kernel/$module.ko" || echo "no module $module"
done

mkdir root
tar --extract --file="$KX_ROOT" --directory=root && cp -a tmp/files/. root/ || busybox poweroff -f
cat >root/etc/systemd/system/operator.service <<'END'
[Unit]
Wants=multi-user.target
After=multi-user.target
[Service]
Type=oneshot
Environment=HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
WorkingDirectory=/root
ExecStart=/bin/bash -c 'bash /mnt/script >/mnt/output 2>&1; echo $? >/mnt/status; sync'
ExecStopPost=/bin/systemctl poweroff -ff
END
mount --bind root root
cd root
mkdir -p former
mount --move /mnt/tmp mnt || echo "the host's folder is lost"
for place in proc sys dev; do mkdir -p $place; done
mount -t sysfs sysfs sys
mount -t devtmpfs dev dev
pivot_root . former
exec /lib/systemd/systemd --unit=operator.service --show-status=no </dev/null >/mnt/systemd.log 2>&1
