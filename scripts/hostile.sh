#!/usr/bin/env bash
# Lets programs die in every bad way we know, and prints what was left of each.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<END
Usage: scripts/hostile.sh [--help] [--no-build] [--nightly] [--arm64] [CASE]

Runs the table of hostile cases: a program under libkova_host.so dies, and its report, its record, its exit status and
what was stored before are looked at. Prints a row for each case:

  case, machine, report (complete, cut, trace line, none), record (kept, none), exit status, ok

An "ok" means that all is as it must be: some nodes cannot hold a report. Only cases whose name contains CASE run, if it
is given; letters, digits and underscores for all else, as in "log_is_a_link".

  --no-build  take build/dev (or build/arm64) as it is
  --nightly   also repeat the cases whose outcome depends on who comes first, for some minutes
  --arm64     run on the emulated arm64 machine instead of this one

Exit status: 0 all ok, 1 something is not, 2 wrong arguments.
END
}

build=1 nightly=0 arm64=0 case=
while (($#)); do
    case $1 in
        --help | -h) usage && exit 0 ;;
        --no-build) build=0 ;;
        --nightly) nightly=1 ;;
        --arm64) arm64=1 ;;
        -*) usage >&2 && echo "hostile.sh: unknown option '$1'" >&2 && exit 2 ;;
        *) case=$1 ;;
    esac
    shift
done
if [[ $case && ! $case =~ ^[A-Za-z0-9_]+$ ]] || { ((arm64)) && { ((nightly)) || [[ $case ]]; }; }; then
    usage >&2
    exit 2
fi

cd "$kova_root"
output=$kova_root/build/logs/hostile.log
mkdir -p "$(dirname "$output")"

run_here() {
    local suites="Quick/*$case*"
    ((nightly == 0)) || suites+=":Nightly/*$case*"
    need_packages g++ cmake ninja-build googletest libcli11-dev nlohmann-json3-dev libfmt-dev libasio-dev python3
    if ((build)); then
        say "building"
        run_logged build/logs/dev-configure.log cmake --preset dev
        run_logged build/logs/hostile-build.log cmake --build build/dev --target hostile_table private_node
    fi
    [[ -x build/dev/tests/hostile_table ]] || fail "build/dev has no hostile_table; run this without --no-build"
    say "running the cases"
    GTEST_FILTER=$suites build/dev/bin/private_node build/dev/tests/hostile_table >"$output" 2>&1
}

run_on_arm64() {
    local arguments=(--only hostile_table)
    ((build)) || arguments+=(--no-build)
    scripts/arm64-kernel-tests.sh "${arguments[@]}" || return 1
}

status=0
if ((arm64)); then
    run_on_arm64 || status=1
    tr -d '\r' <build/arm64-kernel/console.log >"$output"
else
    run_here || status=1
fi

rows=$(sed -n 's/^.*@@hostile|//p' "$output")
[[ $rows ]] || fail "no case was run (whole output: $output)"
{
    echo "case|machine|report|record|exit status|ok"
    echo "$rows"
} | awk -F'|' '{ for (i = 1; i <= NF; ++i) { cell[NR, i] = $i; if (length($i) > width[i]) width[i] = length($i) } }
    END { for (row = 1; row <= NR; ++row) { for (i = 1; i < NF; ++i) printf "%-*s  ", width[i], cell[row, i]
                                            print cell[row, NF] } }'
good=$(grep -c '|ok$' <<<"$rows") || true
bad=$(grep -c '|NO$' <<<"$rows") || true
echo "$good ok, $bad not ok, $(($(wc -l <<<"$rows") - good - bad)) not possible here; whole output: build/logs/hostile.log"
exit "$status"
