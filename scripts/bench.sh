#!/usr/bin/env bash
# Builds and runs the benchmarks and prints their table of ratios.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<END
Usage: scripts/bench.sh [--help] [--filter REGEX]

Installs the Debian packages that are missing, builds into build/bench and measures on a private node: a whole capture
and the services of the agent, each against the system calls that it cannot do without, and the capture against a core
dump and other crash handlers. Prints a table of ratios of medians, both sides measured in turn in this very run; the
times behind them are in build/logs/bench-times.log. Takes a minute or two. x86-64 only.

  --filter REGEX  only the rows whose name matches, for instance "capture"

Exit status: 0 everything was measured, whatever the ratios; 1 something could not be built or run; 2 wrong arguments.
END
}

filter=.
while (($#)); do
    case $1 in
        --help | -h) usage && exit 0 ;;
        --filter)
            (($# > 1)) || { echo "bench.sh: --filter needs a regular expression" >&2 && exit 2; }
            filter=$2 && shift
            ;;
        *) usage >&2 && echo "bench.sh: unknown argument '$1'" >&2 && exit 2 ;;
    esac
    shift
done

[[ $(uname -m) == x86_64 ]] || fail "the benchmarks are for x86-64, this machine is $(uname -m)"
cd "$kova_root"
logs=$kova_root/build/logs
need_packages g++ cmake ninja-build libbenchmark-dev libcli11-dev nlohmann-json3-dev libfmt-dev libasio-dev \
    libbackward-cpp-dev libdw-dev libgoogle-glog-dev

say "building"
run_logged "$logs/bench-configure.log" cmake --preset bench
run_logged "$logs/bench-build.log" cmake --build build/bench

say "measuring"
: >"$logs/bench-times.log"
for program in kova_bench kova_bench_peers; do
    build/bench/bin/private_node "build/bench/bench/$program" "--benchmark_filter=$filter" 2>>"$logs/bench-times.log" ||
        fail "$program could not be run: $(tail -n 1 "$logs/bench-times.log")"
done | awk '!/^\|---|^\| Measured/ || !seen[$0]++'
say "done"
