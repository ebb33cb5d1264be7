#!/bin/sh
# An LXC lab: real containers of a static busybox in a mount and network namespace of their own. Needs root and the
# Debian packages lxc, busybox-static, iproute2 and util-linux; nothing is downloaded and the host's /var/lib/lxc,
# /run/lxc and network are not touched. Cgroup v1, v1 with v2 beside it, and pure v2 hosts will do.
#
# Making a lab:
#   lxclab.sh run COMMAND [ARG...]   makes a lab, runs the command in it, takes the lab down; the command's exit status
#   lxclab.sh hold                   makes a lab, prints "ready PID" and holds it until its standard input ends or it
#                                    gets SIGTERM or SIGINT; then takes the lab down. PID is a process of the lab.
#   lxclab.sh check                  0 when a lab can be made here; else 1 and the reason on standard output
#
# In a lab (inside `run`, or from outside with the environment variable LXCLAB_PID=PID of a held lab):
#   lxclab.sh create NAME [HOSTNAME]  a container, stopped; HOSTNAME default NAME.example.test, "-" sets none
#   lxclab.sh start|stop|freeze|unfreeze|destroy NAME    stop kills; each returns when LXC says that it is done
#   lxclab.sh exec COMMAND [ARG...]   runs a command in the lab's namespaces, e.g. the agent
#
# Every container has a veth "eth0" on the bridge br0 (10.77.0.1/24) and address 10.77.x.y/16 counted up from 10.77.1.1,
# a memory limit of 64 MiB and 64 pids. Two labs at once share the cgroup tree: give their containers different names.
# Killing a lab with SIGKILL leaves its containers running; every other end kills them and removes their cgroups.
set -eu

LXC_PATH=/var/lib/lxc
SELF=$(readlink -f "$0")

fail() {
    echo "lxclab: $*" >&2
    exit 1
}

# Prints why there can be no lab here, or nothing.
obstacle() {
    [ "$(id -u)" = 0 ] || { echo "not root"; return; }
    for tool in lxc-start lxc-stop lxc-freeze lxc-info busybox ip unshare nsenter; do
        command -v $tool >/dev/null || { echo "$tool is not installed"; return; }
    done
    # A dynamic busybox would miss its libraries inside the container.
    ! ldd "$(command -v busybox)" >/dev/null 2>&1 || { echo "busybox is not static"; return; }
    [ -d $LXC_PATH ] || { echo "$LXC_PATH does not exist"; return; }
    unshare --mount --net --propagation private true 2>/dev/null || echo "no namespaces allowed"
}

# --- making and taking down, inside the new namespaces ---

# A sysfs belongs to a network namespace, so a fresh one is needed; the cgroup tree must survive below it.
mount_lab() {
    keep=$(mktemp -d -t lxclab.XXXXXX)
    mount --rbind /sys/fs/cgroup "$keep"
    mount -t sysfs sysfs /sys
    mount --rbind "$keep" /sys/fs/cgroup
    umount -l "$keep"
    rmdir "$keep"
    mount -t tmpfs tmpfs $LXC_PATH
    mkdir -p /run/lxc
    mount -t tmpfs tmpfs /run/lxc
    # LXC wants to log here when started in the background.
    if [ -d /var/log/lxc ]; then mount -t tmpfs tmpfs /var/log/lxc; fi
}

make_network() {
    ip link set lo up
    ip link add br0 type bridge
    ip addr add 10.77.0.1/16 dev br0
    ip link set br0 up
}

is_in_lab() {
    [ "$(readlink "/proc/$1/ns/mnt" 2>/dev/null)" = "$(readlink /proc/self/ns/mnt)" ]
}

# The monitors of this lab's containers and their children: init processes and hooks. A monitor whose hooks still run
# has no cgroup yet, so the title that LXC gives it is what tells; the namespace tells other labs' apart.
container_processes() {
    for folder in /proc/[0-9]*; do
        monitor=${folder#/proc/}
        case $({ tr '\0' ' ' <"$folder/cmdline"; } 2>/dev/null) in "[lxc monitor] "*) ;; *) continue ;; esac
        ! is_in_lab "$monitor" || echo "$monitor $(cat "$folder/task/$monitor/children" 2>/dev/null)"
    done
}

still_running() {
    for process in $1; do
        case $(sed 's/.*) //' "/proc/$process/stat" 2>/dev/null) in "" | Z*) ;; *) echo "$process" ;; esac
    done
}

# The cgroup folders of a process, one a line. They are remembered before a container is killed, so that only
# this lab's own are removed afterwards, whatever suffix LXC gave them.
cgroups_of() {
    { cat "/proc/$1/cgroup"; } 2>/dev/null | while IFS=: read -r _ controllers path; do
        path=$(echo "$path" | sed 's,\(.*/lxc[.][^/]*\).*,\1,')
        case $path in */lxc.*) ;; *) continue ;; esac
        case $controllers in
            "") for root in /sys/fs/cgroup /sys/fs/cgroup/unified; do
                    [ ! -e $root/cgroup.procs ] || echo "$root$path"
                done ;;
            name=*) echo "/sys/fs/cgroup/${controllers#name=}$path" ;;
            *) echo "/sys/fs/cgroup/$controllers$path" ;;
        esac
    done
}

remove_cgroups() {
    for folder in $1; do
        [ ! -d "$folder" ] || find "$folder" -depth -type d -exec rmdir {} + 2>/dev/null || true
    done
}

# Nobody is asked to stop: a monitor that waits for a hook, or hangs, would not answer.
take_down() {
    trap '' INT TERM HUP
    processes=$(container_processes)
    folders=$(for process in $processes; do cgroups_of "$process"; done | sort -u)
    for folder in $folders; do
        # A frozen process dies only when it is thawed.
        [ ! -e "$folder/freezer.state" ] || echo THAWED >"$folder/freezer.state" || true
        [ ! -e "$folder/cgroup.freeze" ] || echo 0 >"$folder/cgroup.freeze" || true
    done
    tries=0
    while left=$(still_running "$processes $(container_processes)") && [ -n "$left" ] && [ $tries -lt 200 ]; do
        kill -KILL $left 2>/dev/null || true
        tries=$((tries + 1))
        sleep 0.02
    done
    remove_cgroups "$folders"
    # LXC leaves this one behind, empty, wherever it has stopped a container.
    remove_cgroups "$(find /sys/fs/cgroup -maxdepth 2 -type d -name lxc.pivot)"
}

inside_run() {
    mount_lab
    make_network
    trap take_down EXIT
    trap 'exit 143' TERM
    trap 'exit 130' INT
    status=0
    "$@" || status=$?
    exit $status
}

# The shell stays in `read` until the pipe ends; a signal interrupts it and runs the trap.
hold_until_told() {
    echo "ready $$"
    while read -r _; do :; done
}

# --- containers, inside a lab ---

next_address() {
    count=$(($(cat $LXC_PATH/.addresses 2>/dev/null || echo 0) + 1))
    echo $count >$LXC_PATH/.addresses
    echo "10.77.$((count / 250 + 1)).$((count % 250 + 1))"
}

# With its own tab: init needs something to wait for, and nothing that keeps it from a clean stop.
make_root() {
    for folder in bin sbin etc proc sys dev tmp root usr/lib var/run mnt; do mkdir -p "$1/$folder"; done
    cp "$(command -v busybox)" "$1/bin/busybox"
    for tool in sh ping cat ls sleep mount ip nc dd hostname poweroff mkdir echo kill; do
        ln -sf busybox "$1/bin/$tool"
    done
    ln -sf ../bin/busybox "$1/sbin/init"
    echo 'root:x:0:0:root:/root:/bin/sh' >"$1/etc/passwd"
    printf '::sysinit:/bin/true\n::ctrlaltdel:/bin/poweroff\n' >"$1/etc/inittab"
    printf 'NAME="Busybox lab"\nID=busyboxlab\nVERSION_ID="1.35"\n' >"$1/usr/lib/os-release"
    ln -sf ../usr/lib/os-release "$1/etc/os-release"
}

memory_and_pid_limits() {
    if [ -e /sys/fs/cgroup/cgroup.controllers ]; then
        printf 'lxc.cgroup2.memory.max = 64M\nlxc.cgroup2.pids.max = 64\n'
    else
        printf 'lxc.cgroup.memory.limit_in_bytes = 64M\nlxc.cgroup.pids.max = 64\n'
    fi
}

# The folder is made under another name and renamed, as a careful tool does: nobody sees half a container.
create() {
    name=$1
    hostname=${2:-$name.example.test}
    [ ! -e "$LXC_PATH/$name" ] || fail "container $name exists"
    build=$(mktemp -d $LXC_PATH/.build.XXXXXX)
    make_root "$build/rootfs"
    {
        echo "lxc.rootfs.path = dir:$LXC_PATH/$name/rootfs"
        [ "$hostname" = - ] || echo "lxc.uts.name = $hostname"
        cat <<CONFIG
lxc.signal.halt = SIGUSR1
lxc.signal.reboot = SIGTERM
lxc.autodev = 1
lxc.tty.max = 0
lxc.pty.max = 64
lxc.mount.auto = proc:mixed sys:ro
lxc.net.0.type = veth
lxc.net.0.link = br0
lxc.net.0.flags = up
lxc.net.0.name = eth0
lxc.net.0.ipv4.address = $(next_address)/16
CONFIG
        memory_and_pid_limits
    } >"$build/config"
    chmod 755 "$build"
    mv "$build" "$LXC_PATH/$name"
}

destroy() {
    lxc-stop -k -n "$1" 2>/dev/null || true
    lxc-destroy -n "$1" >/dev/null
}

in_lab() {
    command=$1
    shift
    case $command in
        create) create "$@" ;;
        start) lxc-start -d -n "$1" ;;
        stop) lxc-stop -k -n "$1" ;;
        freeze) lxc-freeze -n "$1" ;;
        unfreeze) lxc-unfreeze -n "$1" ;;
        destroy) destroy "$1" ;;
        exec) exec "$@" ;;
    esac
}

[ $# -gt 0 ] || fail "no command; they are explained at the head of $SELF"
command=$1
shift
case $command in
    check)
        reason=$(obstacle)
        [ -z "$reason" ] || { echo "$reason"; exit 1; }
        ;;
    run | hold)
        reason=$(obstacle)
        [ -z "$reason" ] || fail "$reason"
        LXCLAB_PID=
        export LXCLAB_PID
        exec unshare --mount --net --propagation private "$SELF" "inside-$command" "$@"
        ;;
    inside-run) inside_run "$@" ;;
    inside-hold) inside_run hold_until_told ;;
    create | start | stop | freeze | unfreeze | destroy | exec)
        [ $# -gt 0 ] || fail "$command: name missing"
        if [ -n "${LXCLAB_PID:-}" ]; then
            pid=$LXCLAB_PID
            LXCLAB_PID=
            export LXCLAB_PID
            exec nsenter --mount --net --target "$pid" -- "$SELF" "$command" "$@"
        fi
        # Outside a lab this would work on the host's own containers.
        [ "$(stat -f -c %T $LXC_PATH)" = tmpfs ] || fail "$command: not inside a lab, and LXCLAB_PID is not set"
        in_lab "$command" "$@"
        ;;
    *) fail "unknown command $command; they are explained at the head of $SELF" ;;
esac
