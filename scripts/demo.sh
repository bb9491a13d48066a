#!/usr/bin/env bash
# Lets real programs crash under capture and shows what is left of them.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<END
Usage: scripts/demo.sh [--help] [--here]

Installs the Debian packages that are missing, builds into build/demo, and lets installed, unmodified programs (python3,
bash, sleep) crash under capture. Then it shows the report and the black box, lets a module's assert fail twice, starts
the daemon and a module that hears about overload and recovery, and shows where the files are.

  --here  use this machine's /opt/norvel/var/log, which must be writable, instead of a private node

By default everything happens on a private node, a namespace with an empty /opt of its own: nothing of this machine is
changed, and copies of the files are left in build/demo/node-files. Works as root and as an ordinary user, who needs root
only to install packages.

Exit status: 0 everything went as told, 1 something did not.
END
}

private=1 inside=0
while (($#)); do
    case $1 in
        --help | -h) usage && exit 0 ;;
        --here) private=0 ;;
        --inside) inside=1 SECONDS=$2 && shift ;; # how this script calls itself on the private node
        *) usage >&2 && fail "unknown argument '$1'" ;;
    esac
    shift
done

build=$kova_root/build/demo
bin=$build/bin
copies=$build/node-files
logs=/opt/norvel/var/log
report=$logs/kova_exception.log
box=$logs/kova_exception_assert

chapter() { printf '\n== %s\n\n' "$*"; }
show_command() { printf '   $ %s\n' "$*"; }
indent() { sed 's/^/   | /'; }

# What a shell sees of an end.
end_of() {
    if (($1 > 128)); then
        echo "killed by SIG$(kill -l $(($1 - 128)))"
    else
        echo "exit code $1"
    fi
}

# Runs a command of ours and shows it with its output.
show() {
    show_command "$@"
    PATH=$bin:$PATH "$@" 2>&1 | indent
}

# Without the shell's own remark about how it ended.
quietly() { (ulimit -c 0 && "$@") >/dev/null 2>&1 || return $?; }

# crash TEXT COMMAND...: once without and once with capture; a parent must see the same end.
crash() {
    local text=$1 plain=0 captured=0
    shift
    say "$text"
    show_command "kovactl run -- ${*@Q}"
    { quietly "$@" || plain=$?; } 2>/dev/null
    { quietly "$bin/kovactl" run -- "$@" || captured=$?; } 2>/dev/null
    printf '   | without capture: %s; under capture: %s\n' "$(end_of $plain)" "$(end_of $captured)"
    ((plain == captured && captured > 128)) || fail "the ends differ, or this is no crash"
}

# True once the program catches the signal: until then it is still starting.
catches() {
    local mask
    mask=$(awk '/^SigCgt:/ { print $2 }' "/proc/$1/status" 2>/dev/null) && [[ $mask ]] && ((0x$mask >> ($2 - 1) & 1))
}

# wait_for FILE TEXT COMPLAINT: until the text stands in the file.
wait_for() {
    local tries=0
    until grep -q "$2" "$1" 2>/dev/null; do
        ((++tries < 3000)) || fail "$3"
        sleep 0.01
    done
}

# Whatever goes wrong from here on, these processes are not left running.
end_with_demo() {
    # shellcheck disable=SC2064 # now, not when it goes wrong
    trap "kill $* 2>/dev/null || true" EXIT
}

# Somebody else kills the program.
crash_by_kill() {
    local number=$1 pid status=0 tries=0
    shift
    show_command "kovactl run -- ${*@Q} &  kill -$(kill -l "$number") \$!"
    (ulimit -c 0 && exec "$bin/kovactl" run -- "$@") &
    pid=$!
    until catches "$pid" "$number"; do
        ((++tries < 500)) || fail "$1 did not start under capture"
        sleep 0.01
    done
    kill "-$number" "$pid"
    { wait "$pid" || status=$?; } 2>/dev/null
    printf '   | under capture: %s\n' "$(end_of $status)"
    ((status == 128 + number)) || fail "it should have died of signal $number"
}

let_programs_crash() {
    chapter "Four programs that know nothing of us crash"
    crash "Python reads address 0" python3 -c 'import ctypes; ctypes.string_at(0)'
    crash "Python aborts itself" python3 -c 'import os; os.abort()'
    crash "bash sends itself SIGFPE" bash -c 'kill -FPE $$'
    say "sleep is killed from outside"
    crash_by_kill 11 sleep 60
}

show_report() {
    chapter "The exception log: one report for each"
    local first=$build/first-report
    # From a trace line to the next: the report of the first crash.
    awk '/send Signal/ && ++n == 2 { exit } { print }' "$report" >"$first"
    say "the traces of all four"
    grep -a 'send Signal' "$report" | indent
    say "the report of the first, $(wc -l <"$first") lines; its beginning and, from its end, the call stack"
    awk '/^[0-9a-f]+-[0-9a-f]+ / { if (!map++) print "(the memory map of the process)"; next }
         /^===Dump/ { exit } /^Show CallStack/ { exit } { print }' "$first" | cut -c1-110 | indent
    echo "   | (memory around the registers, heap blocks they point to, the stack, ...)"
    awk '/^Show CallStack/ { text = "" } { text = text $0 "\n" } END { printf "%s", text }' "$first" | sed -n 1,12p |
        cut -c1-110 | indent
}

show_box() {
    chapter "The black box: what survives when the log is gone"
    show kovactl box list
    say "the newest record"
    show kovactl box show 0 | sed -n 1,30p
    say "is the file sound?"
    show kovactl box verify
}

show_asserts() {
    chapter "A module asserts: printed and stored once, then counted"
    say "the program, examples/assert_twice.c; its diagnostic log goes to standard error here"
    KOVA_LOG_STDERR=1 show "$build/examples/assert_twice" | tr -d '\r'
    show kovactl asserts
    show kovactl asserts show
    "$bin/kovactl" asserts | grep -q '  2  *assert_twice\.c:' || fail "the assert should have been counted twice"
}

show_overload() {
    chapter "The daemon: registered processes, overload and recovery"
    local runtime=$build/runtime daemon module heard=$build/overload-heard
    export KOVA_RUNTIME_DIR=$runtime
    mkdir -p "$runtime"
    rm -f "$build/kovad.log" "$heard"
    show_command "kovad &"
    "$bin/kovad" 2>"$build/kovad.log" &
    daemon=$!
    end_with_demo $daemon
    wait_for "$build/kovad.log" ready "kovad did not start"
    say "a data-plane process that reports 30, 95 and 20 %, and wants to hear of 80 % and of 60 %"
    show_command "overload_watch --feed 30,95,95,95,20 80 60 &"
    "$build/examples/overload_watch" --feed 30,95,95,95,20 80 60 >"$heard" 2>&1 &
    module=$!
    end_with_demo $daemon $module
    wait_for "$heard" "overload: " "no overload was heard of"
    show kovactl ps
    show kovactl subscriptions
    show kovactl region
    say "the daemon is killed and started again; within 5 s the process is back by itself, and hears of its recovery"
    show_command "kill -KILL $daemon; kovad &"
    kill -KILL "$daemon"
    wait "$daemon" 2>/dev/null || true
    mv "$build/kovad.log" "$build/kovad-killed.log"
    "$bin/kovad" 2>"$build/kovad.log" &
    daemon=$!
    end_with_demo $daemon $module
    wait_for "$build/kovad.log" subscribes "the process did not come back"
    show kovactl ps
    wait "$module" || fail "overload_watch failed"
    say "what it heard"
    indent <"$heard"
    grep -q recovered "$heard" || fail "no recovery was heard of"
    kill "$daemon"
    wait "$daemon" || fail "kovad did not stop cleanly"
    trap - EXIT
    say "what the second daemon logged"
    indent <"$build/kovad.log"
}

show_files() {
    chapter "Where the files are"
    ls -l "$report" "$box" | indent
    if ((inside)); then
        mkdir -p "$copies"
        cp "$report" "$box" "$copies/"
        say "the private node vanishes now; copies are in ${copies#"$PWD"/}"
        say "look again: build/demo/bin/kovactl box --file ${copies#"$PWD"/}/${box##*/} list"
    fi
    say "your own program, on this machine's $logs: build/demo/bin/kovactl run -- PROGRAM ARGS..."
}

tell_the_story() {
    mkdir -p "$logs" 2>/dev/null && [[ -w $logs ]] || fail "$logs must exist and be writable"
    let_programs_crash
    show_report
    show_box
    show_asserts
    show_overload
    show_files
}

if ((inside)); then
    cd "$kova_root"
    tell_the_story
    exit
fi

((!private)) || need_visible_tree
cd "$kova_root"
need_packages cmake ninja-build g++ libcli11-dev nlohmann-json3-dev libfmt-dev libasio-dev python3
say "building into build/demo"
run_logged "$build/configure.log" cmake --preset release -B "$build" -DKOVA_TESTS=OFF || fail "configuring failed"
run_logged "$build/build.log" cmake --build "$build" || fail "building failed"
if ((private)); then
    exec "$bin/private_node" bash scripts/demo.sh --inside "$SECONDS"
fi
tell_the_story
