#!/usr/bin/env python3
"""Counts individual test cases in what test programs printed.

  test_results.py ctest JUNIT_FILE      results of one `ctest --output-junit` run
  test_results.py console LOG TESTS     results of the arm64 kernel's console; TESTS is `ctest --show-only=json-v1`
  test_results.py guest-script TESTS    the shell script that runs these tests on the arm64 kernel

The first two print what failed and end with a line "PASSED FAILED SKIPPED". A GoogleTest program counts with its cases,
any other test as one. A program that failed although no case of it did (a leak found at its end, a crash) counts as one
more failure.
"""

import json
import re
import shlex
import sys
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field

# On the console of the emulated machine a program takes about ten times as long.
GUEST_TIMEOUT_S = 180
# Checks of the source tree and of the build, which need the build machine's tools.
HOST_LABEL = "host"
# Too long for the emulated machine.
NIGHTLY_LABEL = "nightly"
SHOWN_LINES = 100
BEGIN, END = "@@kova-test-begin", "@@kova-test-end"


@dataclass
class Count:
    passed: int = 0
    failed: int = 0
    skipped: int = 0
    failures: list = field(default_factory=list)

    def fail(self, what):
        self.failed += 1
        self.failures.append(what)


def last_number(pattern, text):
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def add_gtest(count, name, output, succeeded):
    ran = re.search(r"\[==========\] \d+ tests? from \d+ test suites? ran\.", output)
    failures = sorted(set(re.findall(r"\[  FAILED  \] ([\w/]+\.[\w/]+)", output)))
    count.failures += [f"{name}: {failure}" for failure in failures]
    count.failed += len(failures)
    if ran:
        count.passed += last_number(r"\[  PASSED  \] (\d+) tests?\.", output)
        count.skipped += last_number(r"\[  SKIPPED \] (\d+) tests?, listed below", output)
    else:
        count.passed += len(re.findall(r"\[       OK \] [\w/]+\.", output))
    if not succeeded and not (ran and failures):
        started = re.findall(r"\[ RUN      \] (\S+)", output)
        at = "after its tests" if ran else f"in {started[-1]}" if started else "before its tests"
        count.fail(f"{name}: the program failed {at}")


def add(count, name, output, succeeded):
    if "[==========] Running " in output:
        add_gtest(count, name, output, succeeded)
    elif succeeded:
        count.passed += 1
    else:
        count.fail(name)


def report(count):
    for failure in count.failures:
        print(f"  failed: {failure}")
    print(count.passed, count.failed, count.skipped)


def count_ctest(junit_file):
    count = Count()
    for case in ElementTree.parse(junit_file).getroot().iter("testcase"):
        status = case.get("status")
        if status == "disabled" or case.find("skipped") is not None and status != "fail":
            count.skipped += 1
            continue
        add(count, case.get("name"), case.findtext("system-out") or "", status == "run")
    report(count)


def guest_tests(tests_file):
    with open(tests_file, encoding="utf-8") as file:
        tests = json.load(file)["tests"]
    for test in tests:
        properties = {item["name"]: item["value"] for item in test.get("properties", [])}
        if {HOST_LABEL, NIGHTLY_LABEL} & set(properties.get("LABELS", [])) or properties.get("DISABLED"):
            continue
        yield test, properties


def guest_script(tests_file):
    for test, properties in guest_tests(tests_file):
        name = test["name"]
        if "command" not in test:
            sys.exit(f"{name}: its program has not been built")
        unknown = set(properties) & {"WILL_FAIL", "PASS_REGULAR_EXPRESSION", "FAIL_REGULAR_EXPRESSION"}
        if unknown:
            sys.exit(f"{name}: {', '.join(unknown)} is not known on the arm64 kernel: label the test '{HOST_LABEL}'")
        timeout_s = max(GUEST_TIMEOUT_S, int(properties.get("TIMEOUT", 0)))
        words = [name, str(timeout_s), str(properties.get("SKIP_RETURN_CODE", -1)),
                 properties.get("WORKING_DIRECTORY", "/"), "env", *properties.get("ENVIRONMENT", []), *test["command"]]
        print("run_test", *map(shlex.quote, words))


def count_console(log_file, tests_file):
    with open(log_file, encoding="utf-8", errors="replace") as file:
        log = file.read().replace("\r", "")
    count = Count()
    for test, _ in guest_tests(tests_file):
        name = test["name"]
        found = re.search(rf"^{BEGIN} {re.escape(name)}\n(.*?)^{END} {re.escape(name)} (\w+)$", log, re.M | re.S)
        if found and found.group(2) == "skipped":
            count.skipped += 1
        elif found:
            status, failed_before = found.group(2), count.failed
            add(count, name if status == "0" else f"{name} (status {status})", found.group(1), status == "0")
            if count.failed > failed_before:
                print(f"{name}, its last lines on the arm64 kernel:", *found.group(1).splitlines()[-SHOWN_LINES:], sep="\n")
        elif f"{BEGIN} {name}\n" in log:
            count.fail(f"{name}: the machine stopped in it")
        else:
            count.fail(f"{name}: the machine stopped before it")
    report(count)


def main():
    actions = {"ctest": (count_ctest, 1), "console": (count_console, 2), "guest-script": (guest_script, 1)}
    action, arguments = actions.get(sys.argv[1] if len(sys.argv) > 1 else "", (None, 0))
    if action is None or len(sys.argv) != 2 + arguments:
        sys.exit(__doc__)
    action(*sys.argv[2:])


if __name__ == "__main__":
    main()
