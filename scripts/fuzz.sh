#!/usr/bin/env bash
# Builds the fuzzers with clang and runs each for a while.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<END
Usage: scripts/fuzz.sh [--help] [--seconds N] [TARGET...]

Installs the Debian packages that are missing, builds the fuzzers and runs each TARGET for N seconds (default: all of
them, 60 s each). They begin with the seeds in fuzz/corpus/TARGET and with what earlier runs found worth keeping, which
is in build/fuzz/corpus/TARGET.

  fuzz_box_tool   what kovactl makes of a black box file
  fuzz_box_ring   the agent's operations on a black box file
  fuzz_map_text   memory maps: lines, and the search in them
  fuzz_wire       messages between the daemon and processes
  fuzz_link_book  the daemon's books of processes, whatever they say

A finding is printed, and the input that leads to it is left in build/fuzz/found; to see it again:
  build/fuzz/bin/TARGET FILE        (fuzz_box_ring: build/fuzz/bin/private_node build/fuzz/bin/TARGET FILE)

Exit status: 0 nothing was found, 1 something was, or the build failed; 2 wrong arguments.
END
}

all_targets=(fuzz_box_tool fuzz_box_ring fuzz_map_text fuzz_wire fuzz_link_book)
seconds=60 targets=()
while (($#)); do
    case $1 in
        --help | -h) usage && exit 0 ;;
        --seconds)
            (($# > 1)) || { echo "fuzz.sh: --seconds needs a number" >&2 && exit 2; }
            seconds=$2 && shift
            ;;
        *)
            [[ " ${all_targets[*]} " == *" $1 "* ]] || { usage >&2 && echo "fuzz.sh: unknown target '$1'" >&2 && exit 2; }
            targets+=("$1")
            ;;
    esac
    shift
done
[[ $seconds =~ ^[1-9][0-9]*$ ]] || { echo "fuzz.sh: --seconds needs a number above 0, not '$seconds'" >&2 && exit 2; }
((${#targets[@]})) || targets=("${all_targets[@]}")

cd "$kova_root"
need_packages clang g++ cmake ninja-build libcli11-dev nlohmann-json3-dev libfmt-dev libasio-dev
say "building"
run_logged build/logs/fuzz-configure.log cmake --preset fuzz || exit 1
run_logged build/logs/fuzz-build.log cmake --build build/fuzz --target fuzzers || exit 1

mkdir -p build/fuzz/found
status=0
for target in "${targets[@]}"; do
    kept=build/fuzz/corpus/$target log=build/logs/$target.log
    mkdir -p "$kept"
    command=("build/fuzz/bin/$target")
    # It works on the real path, on a node of its own.
    [[ $target != fuzz_box_ring ]] || command=(build/fuzz/bin/private_node "${command[@]}")
    say "$target: $seconds s"
    if run_logged "$log" "${command[@]}" -max_total_time="$seconds" -timeout=20 -print_final_stats=1 \
        -artifact_prefix="build/fuzz/found/$target-" "$kept" "fuzz/corpus/$target"; then
        say "$target: nothing found in $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") executions"
    else
        status=1
    fi
done
exit "$status"
