#!/usr/bin/env bash
# Builds and tests everything from a fresh machine; the same entry for a person and for CI.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<END
Usage: scripts/test.sh [--help] [--since REVISION] [STEP...]

Installs the Debian packages that are missing, then takes these steps (default: the first five):

  dev      build and test natively, optimised
  style    clang-format and clang-tidy over the files changed since main (or --since REVISION); needs dev built
  asan     the same tests under AddressSanitizer and UndefinedBehaviorSanitizer
  tsan     the same tests under ThreadSanitizer
  arm64    cross build; the tests on an arm64 kernel in an emulated machine, which runs beside the other steps
  release  the same tests without assertions
  fuzz     every fuzzer for some seconds, a minute in all
  nightly  all of these, the tests that take minutes, style over every file (the fuzzers as well), and the
           long versions of the tests that have one (KOVA_NIGHTLY=1)

A step that fails does not keep the others from running. The last line is "N passed, N failed", counted in single test
cases; a step that could not be built or came to no result counts as one failed case. Outputs are in build/logs.

Exit status: 0 all passed, 1 something failed or nothing was tested, 2 wrong arguments.
END
}

# Tests with this label take minutes each.
label_arguments=(--label-exclude '^nightly$')
steps=() style_arguments=()
while (($#)); do
    case $1 in
        --help | -h) usage && exit 0 ;;
        --since)
            (($# > 1)) || { echo "test.sh: --since needs a revision" >&2 && exit 2; }
            style_arguments=(--since "$2") && shift
            ;;
        dev | style | asan | tsan | arm64 | release | fuzz) steps+=("$1") ;;
        nightly)
            steps=(dev asan tsan release fuzz style arm64) style_arguments=(--all) label_arguments=()
            export KOVA_NIGHTLY=1
            ;;
        *) usage >&2 && echo "test.sh: unknown step '$1'" >&2 && exit 2 ;;
    esac
    shift
done
((${#steps[@]})) || steps=(dev style asan tsan arm64)

cd "$kova_root"
logs=$kova_root/build/logs
mkdir -p "$logs"
total_passed=0 total_failed=0 table=()

# STEP PASSED FAILED SKIPPED
record() {
    ((total_passed += $2, total_failed += $3)) || true
    table+=("$(printf '%-8s %s passed, %s failed, %s skipped' "$@")")
    say "${table[-1]}"
}

# Nice to the emulated machine, whose tests have time limits.
build() {
    say "$1: building"
    run_logged "$logs/$1-configure.log" cmake --preset "$1" -DKOVA_TESTS=ON &&
        run_logged "$logs/$1-build.log" nice cmake --build "build/$1"
}

# The whole output of a program is kept, since the single cases are counted in it.
test_preset() {
    local step=$1 passed failed skipped status=0 junit=$logs/$1-tests.xml
    if ! build "$step"; then
        record "$step" 0 1 0
        return
    fi
    say "$step: testing"
    rm -f "$junit"
    run_logged "$logs/$step-tests.log" ctest --preset "$step" --no-tests=error --parallel "$(nproc)" \
        --output-junit "$junit" "${label_arguments[@]}" \
        --test-output-size-passed 10000000 --test-output-size-failed 10000000 || status=$?
    if [[ ! -f $junit ]]; then
        record "$step" 0 1 0
        return
    fi
    if ! python3 scripts/test_results.py ctest "$junit" >"$logs/$step-summary"; then
        record "$step" 0 1 0
        return
    fi
    sed '$d' "$logs/$step-summary"
    read -r passed failed skipped < <(tail -n 1 "$logs/$step-summary")
    # ctest is the judge: what it calls a failure is one, whatever was counted.
    ((status == 0 || failed > 0)) || failed=1
    record "$step" "$passed" "$failed" "$skipped"
}

check_style() {
    if [[ ! -f build/dev/compile_commands.json ]] && ! build dev; then
        record style 0 1 0
    elif run_logged "$logs/style.log" nice python3 scripts/check_style.py "${style_arguments[@]}"; then
        say "style: $(head -n 1 "$logs/style.log"): clean"
        record style 1 0 0
    else
        record style 0 1 0
    fi
}

# A black box written by the arm64 build must be readable here, byte for byte the same format.
read_arm64_box() {
    local kovactl=build/dev/bin/kovactl file=build/arm64-kernel/export/kova_exception_assert
    if [[ ! -x $kovactl ]]; then
        say "arm64box: not read, since there is no $kovactl: run the step dev too"
    elif run_logged "$logs/arm64-box.log" "$kovactl" box verify --file "$file" &&
        "$kovactl" box show 0 --file "$file" >>"$logs/arm64-box.log"; then
        record "arm64box" 1 0 0
    else
        record "arm64box" 0 1 0
    fi
}

# In the background: most of the time it takes one processor and waits for it.
begin_arm64() {
    rm -rf build/arm64-kernel/{counts,export}
    say "arm64: begins (output in build/logs/arm64.log)"
    scripts/arm64-kernel-tests.sh </dev/null >"$logs/arm64.log" 2>&1 &
    arm64_pid=$!
    trap 'kill "$arm64_pid" 2>/dev/null || true' EXIT
}

end_arm64() {
    local status=0 passed failed skipped
    say "arm64: waiting for the machine"
    wait "$arm64_pid" || status=$?
    trap - EXIT
    cat "$logs/arm64.log"
    read -r passed failed skipped < <(cat build/arm64-kernel/counts 2>/dev/null || echo 0 0 0)
    ((status == 0 || failed > 0)) || failed=1
    record arm64 "$passed" "$failed" "$skipped"
    read_arm64_box
}

fuzz() {
    if run_logged "$logs/fuzz.log" nice scripts/fuzz.sh --seconds 12; then
        sed -n 's/^.*\(fuzz_.*: nothing found\)/\1/p' "$logs/fuzz.log"
        record fuzz 1 0 0
    else
        record fuzz 0 1 0
    fi
}

packages=(g++ cmake ninja-build googletest libcli11-dev nlohmann-json3-dev libfmt-dev libasio-dev python3)
for step in "${steps[@]}"; do
    case $step in
        style) packages+=(git clang-tidy clang-format) ;;
        arm64) packages+=("${arm64_packages[@]}") ;;
        fuzz) packages+=(clang) ;;
    esac
done
need_visible_tree
need_packages "${packages[@]}"

[[ " ${steps[*]} " != *" arm64 "* ]] || begin_arm64
for step in "${steps[@]}"; do
    case $step in
        style) check_style ;;
        arm64) end_arm64 ;;
        fuzz) fuzz ;;
        *) test_preset "$step" ;;
    esac
done

say "done"
printf '  %s\n' "${table[@]}"
echo "$total_passed passed, $total_failed failed"
((total_failed == 0 && total_passed > 0))
