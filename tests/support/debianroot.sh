#!/bin/sh
# debianroot.sh TAR FOLDER [INIT]: runs a Debian with its own systemd in namespaces: process, mount, network and control
# group. With INIT "none" no init system runs: its first process does nothing but wait for others to end.
# TAR is unpacked into a tmpfs on FOLDER, whose root the namespaces then have. Prints "ready PID" once it is up, PID
# being its first process as seen from here; ends it when standard input ends. Nothing of it is left then. Needs root.
#
# Its root is a real one (pivot_root), not a chroot, which whoever enters a mount namespace would leave.
set -eu

fail() {
    echo "debianroot: $*" >&2
    exit 1
}

# --- inside the new mount, network and process namespaces ---

make_devices() {
    mount -t tmpfs -o mode=755 tmpfs "$1/dev"
    for node in null zero full random urandom tty; do cp -a "/dev/$node" "$1/dev/$node"; done
    mkdir "$1/dev/pts" "$1/dev/shm"
    ln -s pts/ptmx "$1/dev/ptmx"
    ln -s /proc/self/fd "$1/dev/fd"
}

# Version 2 alone, and of it our own branch: systemd then finds nothing of the machine's to put in order.
mount_cgroups() {
    unshare --cgroup mount -t cgroup2 cgroup2 "$1/sys/fs/cgroup"
}

# The kernel's settings are the machine's; those of the network alone are our namespace's.
protect_kernel() {
    for place in proc/sys proc/sysrq-trigger sys; do
        [ ! -e "$1/$place" ] || mount --bind "$1/$place" "$1/$place"
    done
    mount --bind "$1/proc/sys/net" "$1/proc/sys/net"
    for place in proc/sys proc/sysrq-trigger sys; do
        [ ! -e "$1/$place" ] || mount -o remount,bind,ro "$1/$place"
    done
}

become_debian() {
    root=$1
    mount -t proc proc "$root/proc"
    mount -t sysfs sysfs "$root/sys"
    protect_kernel "$root"
    mount_cgroups "$root"
    mount -t tmpfs -o mode=755 tmpfs "$root/run"
    make_devices "$root"
    cd "$root"
    mkdir .former
    pivot_root . .former
    umount -l /.former
    rmdir /.former
    mount --make-rshared /
    if [ "$2" = none ]; then
        mount -t devpts -o mode=620,ptmxmode=666 devpts /dev/pts
        exec env -i unshare --cgroup /bin/sh -c 'while :; do /bin/sleep 1000 & wait; done' </dev/null >/dev/null 2>&1
    fi
    exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin unshare --cgroup \
        /lib/systemd/systemd --unit=multi-user.target --show-status=no --log-target=journal </dev/null >/dev/null 2>&1
}

# --- outside ---

# Its processes may take a moment to be gone.
remove_group() {
    tries=0
    until find "$group" -depth -type d -exec rmdir {} + 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -lt 250 ] || return 0
        sleep 0.02
    done
}

# Also of what was only begun.
end() {
    trap '' INT TERM HUP
    # Everything in its process namespace ends with its first process, and that one with the launcher.
    [ -z "$launcher" ] || { kill -KILL "${first:-$launcher}" && wait "$launcher"; } 2>/dev/null || true
    [ -z "$group" ] || remove_group
    for place in "$groups" "$folder"; do
        ! mountpoint -q "$place" || umount -l "$place"
    done
    rmdir "$groups"
}

first_process() {
    cat "/proc/$launcher/task/$launcher/children" 2>/dev/null
}

enter() {
    nsenter --mount --net --pid --cgroup --target "$first" -- "$@"
}

# Whether its systemd answers. That it is "degraded" is no reason not to: there is no real hardware.
is_up() {
    case $init:$(enter systemctl is-system-running 2>/dev/null) in
        systemd:running | systemd:degraded) true ;;
        # Until it has its own root, commands would run in the machine's.
        none:*) [ "$(enter stat -c %d / 2>/dev/null)" = "$(stat -c %d "$folder")" ] && enter test ! -e /.former ;;
        *) false ;;
    esac
}

wait_until_up() {
    tries=0
    until first=$(first_process) && [ -n "$first" ] && first=${first% } && is_up; do
        tries=$((tries + 1))
        [ $tries -lt 600 ] || fail "its systemd does not come up"
        kill -0 "$launcher" 2>/dev/null || fail "its systemd has ended"
        sleep 0.05
    done
}

[ $# -ge 2 ] || fail "wrong usage, see the head of $0"
if [ "$1" = --inside ]; then
    become_debian "$2" "$3"
fi
tar=$1
folder=$2
init=${3:-systemd}
first=
launcher=
group=
# A mount of our own: where the machine has its control groups is its affair.
groups=$(mktemp -d -t debianroot.XXXXXX)
trap end EXIT
trap 'exit 143' TERM
trap 'exit 130' INT
mount -t cgroup2 cgroup2 "$groups"
# Others who do the same may have our process id, in a namespace of theirs.
group=$(mktemp -d "$groups/debianroot.XXXXXX")
mount -t tmpfs -o mode=755 tmpfs "$folder"
tar --extract --file="$tar" --directory="$folder"
sh -c 'echo $$ >"$1/cgroup.procs"; shift; exec "$@"' sh "$group" \
    unshare --mount --net --pid --fork --kill-child --propagation private "$0" --inside "$folder" "$init" <&- &
launcher=$!
wait_until_up
enter ip link set lo up
echo "ready $first"
while read -r _; do :; done
