#!/bin/busybox sh
# Process 1 of the emulated arm64 machine: makes it usable, runs /tests.sh, hands out /export, powers off.
#
# Everything goes to the console. Markers stand alone on their line; the host reads the results between them.
/bin/busybox mkdir -p /proc /sys /dev /tmp /root /opt /run /export /usr/local/etc /var
/bin/busybox mount -t proc proc /proc
/bin/busybox --install -s /bin
export PATH=/bin HOME=/root TERM=dumb LANG=C
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
chmod 1777 /tmp  # not a mount: the build tree may stand below it
ln -sf /proc/self/fd /dev/fd
ln -sf /proc/self/fd/0 /dev/stdin
ln -sf /proc/self/fd/1 /dev/stdout
ln -sf /proc/self/fd/2 /dev/stderr
# Kernel messages would land in the middle of results; a panic still prints.
echo 1 >/proc/sys/kernel/printk
ifconfig lo up

# A program that does not end in a newline must not hide the marker.
marker() { printf '\n%s\n' "$*"; }

# NAME TIMEOUT_S SKIP_STATUS FOLDER COMMAND...
run_test() {
    name=$1 limit=$2 skip_status=$3 folder=$4
    shift 4
    mkdir -p "$folder"
    marker "@@kova-test-begin $name"
    (cd "$folder" && exec timeout -s KILL "$limit" "$@") </dev/null 2>&1
    status=$?
    [ "$status" = "$skip_status" ] && status=skipped
    marker "@@kova-test-end $name $status"
}

# What the arm64 build writes must be readable on the host's machine: a black box from here, with one record.
leave_a_box() {
    [ -x "$build/tests/crash_helper" ] || return
    mkdir -p /opt/norvel/var/log
    LD_PRELOAD=$build/lib/libkova_host.so "$build/tests/crash_helper" fault 11
    cp /opt/norvel/var/log/* /export
}

build=  # tests.sh tells
. /tests.sh
leave_a_box

if [ -n "$(ls -A /export)" ]; then
    # The cloud kernel has its virtual devices as modules only. The host finds a tar archive on the raw disk.
    for module in /modules/*.ko; do insmod "$module"; done
    tries=0
    while [ ! -b /dev/vda ] && [ $tries -lt 50 ]; do
        usleep 100000
        tries=$((tries + 1))
    done
    if [ -b /dev/vda ] && tar -C /export -cf /dev/vda . && sync; then
        marker "@@kova-export"
    else
        marker "/export could not be written to the disk"
    fi
fi
marker "@@kova-done"
poweroff -f
