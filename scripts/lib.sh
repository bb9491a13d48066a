# Shell functions that the scripts of this folder share. Sourced, never run: the caller sets its own options first.
#
#   say TEXT...            a progress line, with the seconds since the script began
#   fail TEXT...           one sentence to standard error, then exit 1
#   need_packages NAME...  installs what is missing of these Debian packages
#   need_visible_tree      fails when the project lies where a private node hides it
#   run_logged FILE CMD... runs a command with its output in FILE; says that it still runs, shows the end if it failed
#
# kova_root is the project's top folder, whatever the current folder is.

kova_root=$(CDPATH="" cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)

# What the cross build and the emulated machine need beyond a native build.
arm64_packages=(g++-aarch64-linux-gnu qemu-system-arm cpio gzip dpkg)

say() { printf '[%4ds] %s\n' "$SECONDS" "$*"; }

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# A library may be installed for several architectures: one is enough.
package_installed() { [[ $(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null) == installed* ]]; }

need_visible_tree() {
    local hidden
    for hidden in /opt /run /usr/local/etc /dev/shm; do
        [[ $kova_root/ != "$hidden"/* ]] || fail "the project lies in $hidden, which private nodes cover: move it elsewhere"
    done
}

# sudo asks on the terminal, whatever is redirected; without one it fails instead of waiting.
as_root() {
    if [[ $(id -u) == 0 ]]; then
        "$@"
    else
        sudo "$@"
    fi
}

need_packages() {
    local name missing=() log
    command -v dpkg-query >/dev/null || fail "this script installs Debian packages, and there is no dpkg here: install by hand: $*"
    for name in "$@"; do
        package_installed "$name" || missing+=("$name")
    done
    ((${#missing[@]})) || return 0

    if [[ $(id -u) != 0 ]] && ! command -v sudo >/dev/null; then
        fail "missing packages, and neither root nor sudo to install them: apt-get install ${missing[*]}"
    fi
    say "installing ${missing[*]}"
    log=$(mktemp)
    # Recommended packages would bring a desktop with the emulator. The waiting time is for another apt at work.
    if ! {
        as_root apt-get -o DPkg::Lock::Timeout=300 update &&
            as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install \
                --yes --no-install-recommends "${missing[@]}"
    } </dev/null >"$log" 2>&1; then
        tail -n 15 "$log" >&2
        rm -f "$log"
        fail "apt-get could not install these packages, install them by hand: ${missing[*]}"
    fi
    rm -f "$log"
}

run_logged() {
    local log=$1 pid status=0 began=$SECONDS next=20
    shift
    mkdir -p "$(dirname "$log")"
    "$@" </dev/null >"$log" 2>&1 &
    pid=$!
    trap 'kill '"$pid"' 2>/dev/null; exit 130' INT TERM
    while kill -0 "$pid" 2>/dev/null; do
        sleep 0.2
        if ((SECONDS - began >= next)); then
            say "  still running: $(basename "$log"), ${next} s; last line: $(tail -n 1 "$log" | cut -c1-100)"
            ((next += 20))
        fi
    done
    wait "$pid" || status=$?
    trap - INT TERM
    if ((status)); then
        say "failed with $status: $* (whole output: $log)"
        tail -n 150 "$log"
    fi
    return "$status"
}
