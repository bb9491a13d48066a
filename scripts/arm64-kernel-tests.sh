#!/usr/bin/env bash
# Runs the test programs on a real arm64 kernel in an emulated machine.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<END
Usage: scripts/arm64-kernel-tests.sh [--help] [--no-build] [--limit SECONDS] [--only TEST]

Cross-builds preset arm64, boots Debian's arm64 kernel in qemu-system-aarch64 with the test programs in its initial
file system, and runs all of them except those with the ctest labels "host" and "nightly". Needs no arm64 machine, and
no root except to install missing Debian packages.

  --no-build        take build/arm64 as it is
  --limit SECONDS   how long the machine may run in all (default 2400)
  --only TEST       run these alone; a regular expression, as in 'box_(fault|flip)_test'

Everything stays under build/arm64-kernel: packages (a cache), console.log (what the machine printed), counts (cases
passed, failed and skipped), and export/, the files that were left in the machine's folder /export: a black box with one
record, and what tests put there.

Exit status: 0 all passed, 1 something failed or the machine did not finish.
END
}

build=1 limit=2400 only=
while (($#)); do
    case $1 in
        --help | -h) usage && exit 0 ;;
        --no-build) build=0 ;;
        --limit) limit=${2:?--limit needs a number of seconds} && shift ;;
        --only) only=${2:?--only needs the name of a test} && shift ;;
        *) usage >&2 && fail "unknown argument '$1'" ;;
    esac
    shift
done

[[ $limit =~ ^[1-9][0-9]*$ ]] || fail "--limit needs a number of seconds above 0, not '$limit'"

cd "$kova_root"
work=$kova_root/build/arm64-kernel
tree=$work/tree
mkdir -p "$work"
echo "0 0 0" >"$work/counts"

# apt with a state of its own for the foreign architecture: it needs no root, and the machine's package system does
# not learn of that architecture.
apt_arm64() {
    local tool=$1 state=$work/apt
    shift
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    touch "$state/status"
    "$tool" -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Sandbox::User="$(id -un)" \
        -o Dir::State="$state" -o Dir::State::lists="$state/lists" -o Dir::State::status="$state/status" \
        -o Dir::Cache="$state/cache" "$@"
}

# Kernel and busybox are fetched once; removing build/arm64-kernel fetches the newest again.
fetch_packages() {
    local packages=$work/packages kernel
    [[ -f $packages/complete ]] && return
    say "fetching Debian's arm64 kernel"
    rm -rf "$packages"
    mkdir -p "$packages"
    run_logged "$work/apt-update.log" apt_arm64 apt-get update || fail "no package lists for arm64"
    kernel=$(apt_arm64 apt-cache depends linux-image-cloud-arm64 |
        sed -n 's/^ *Depends: \(linux-image-[0-9][^ ]*\)$/\1/p' | head -n 1)
    [[ $kernel ]] || fail "linux-image-cloud-arm64 names no kernel package"
    (cd "$packages" && run_logged "$work/apt-download.log" apt_arm64 apt-get download "$kernel" busybox-static) ||
        fail "$kernel and busybox-static could not be fetched for arm64"
    for package in "$packages"/*.deb; do dpkg-deb -x "$package" "$packages/root"; done
    rm "$packages"/*.deb
    touch "$packages/complete"
}

# The build tree stands at the same path in the guest, so that run paths and ctest's commands hold as they are.
make_initramfs() {
    local packages=$work/packages/root file name
    rm -rf "$tree"
    mkdir -p "$tree"/{bin,lib,etc,modules}
    install "$packages/bin/busybox" "$tree/bin/busybox"
    install scripts/arm64-guest-init.sh "$tree/init"
    cp "$work/tests.sh" "$tree/tests.sh"
    printf 'root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n' >"$tree/etc/passwd"
    printf 'root:x:0:\nnogroup:x:65534:\n' >"$tree/etc/group"

    for file in /usr/aarch64-linux-gnu/lib/{ld-linux-aarch64.so.1,lib{c,m,dl,rt,pthread,resolv,nss_files,gcc_s,stdc++}.so.*}; do
        [[ -L $file || $file != *libstdc++.so.6.* ]] && install "$file" "$tree/lib/"
    done
    # In the order in which they need each other.
    local number=0
    for name in virtio_ring virtio virtio_mmio virtio_blk; do
        file=$(find "$packages/lib/modules" -name "$name.ko")
        [[ $file ]] || continue  # built in
        cp "$file" "$tree/modules/$((number++))-$name.ko"
    done

    mkdir -p "$tree$kova_root"
    cp -r tests "$tree$kova_root/"
    while read -r file; do
        install -D "$file" "$tree$kova_root/$file"
        aarch64-linux-gnu-strip --strip-debug "$tree$kova_root/$file" 2>/dev/null || true  # scripts stay as they are
    done < <(find build/arm64/{bin,lib,tests} -type f -not -path '*/CMakeFiles/*' \
        \( -perm -u+x -o -name '*.so*' \) 2>/dev/null)
    (cd "$tree" && find . | LC_ALL=C sort | cpio --quiet -o -H newc -R 0:0 | gzip -1) >"$work/initramfs.gz"
}

# Returns 1 when the machine did not come to its end.
boot() {
    local began=$SECONDS next=15 pid
    rm -rf "$work/export" "$work/disk.img" "$work/console.log"
    truncate -s 256M "$work/disk.img"
    # Two processors: what threads do to each other shows only when they really run side by side.
    qemu-system-aarch64 -M virt -cpu max -smp 2 -m 1024 -nic none -nographic -no-reboot \
        -kernel "$work"/packages/root/boot/vmlinuz-* -initrd "$work/initramfs.gz" \
        -append "console=ttyAMA0 quiet panic=-1" \
        -drive "if=none,id=export,format=raw,file=$work/disk.img" -device virtio-blk-device,drive=export \
        </dev/null >"$work/console.log" 2>&1 &
    pid=$!
    trap 'kill '"$pid"' 2>/dev/null; exit 130' INT TERM
    while kill -0 "$pid" 2>/dev/null; do
        sleep 0.2
        if ((SECONDS - began >= limit)); then
            kill "$pid"
            wait "$pid" || true
            say "the machine did not finish within $limit s"
            return 1
        elif ((SECONDS - began >= next)); then
            say "  $(grep -c '^@@kova-test-end' "$work/console.log") test programs done"
            ((next += 15))
        fi
    done
    wait "$pid" || true
    grep -q '^@@kova-done' "$work/console.log" || {
        say "the machine stopped before its end"
        return 1
    }
}

need_packages cmake ninja-build googletest libcli11-dev nlohmann-json3-dev libfmt-dev libasio-dev python3 "${arm64_packages[@]}"
fetch_packages
if ((build)); then
    say "arm64: building"
    run_logged "$work/configure.log" cmake --preset arm64
    run_logged "$work/build.log" nice cmake --build build/arm64
fi
ctest --test-dir build/arm64 --show-only=json-v1 ${only:+--tests-regex "^($only)\$"} >"$work/tests.json"
{
    printf 'build=%q\n' "$kova_root/build/arm64"
    python3 scripts/test_results.py guest-script "$work/tests.json"
} >"$work/tests.sh"
grep -q '^run_test' "$work/tests.sh" || fail "there is no test ${only:-at all} that runs on the machine"
make_initramfs

say "arm64: running on the emulated machine"
status=0
boot || status=1
python3 scripts/test_results.py console "$work/console.log" "$work/tests.json" >"$work/summary"
sed '$d' "$work/summary"
tail -n 1 "$work/summary" >"$work/counts"
read -r passed failed skipped <"$work/counts"
if grep -q '^@@kova-export' "$work/console.log"; then
    mkdir -p "$work/export"
    tar -C "$work/export" -xf "$work/disk.img"
    say "arm64: files of the machine are in build/arm64-kernel/export"
fi
if ((status)); then
    say "the last lines of build/arm64-kernel/console.log:"
    tail -n 60 "$work/console.log" | tr -d '\r'
elif ((failed)); then
    say "what the machine printed is in build/arm64-kernel/console.log"
    status=1
fi
tr -d '\r' <"$work/console.log" | sed -n 's/^alternate stack: /arm64: alternate stack of a capture: /p'
say "arm64: $passed passed, $failed failed, $skipped skipped"
exit "$status"
