#!/usr/bin/env python3
"""Holds changed files against .clang-format and .clang-tidy.

A changed header is checked through a source that includes it. Needs build/dev, built: its compile commands and its
record of who includes what. Fuzzers and benchmarks are checked too where build/fuzz and build/bench are; what no build
there compiles is held against .clang-format alone.

Exit status: 0 clean, 1 something was found (it is printed), 2 it could not be checked.
"""

import argparse
import json
import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor, as_completed

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILDS = [os.path.join(ROOT, "build", preset) for preset in ("dev", "fuzz", "bench")]  # the first one is a must
SOURCES, HEADERS = (".c", ".cpp"), (".h",)
# Commits that land together are made within an hour, and a fresh clone does not tell what was there before.
LANDING_S = 3600


def lines_of(*command):
    return subprocess.run(command, cwd=ROOT, check=True, capture_output=True, text=True).stdout.splitlines()


def base_revision():
    """What the changes are compared with: the branch point from main; on main itself, what was there before the latest
    commits landed; nothing (the empty tree) when that is all there is."""
    head = lines_of("git", "rev-parse", "HEAD")[0]
    for main in ("main", "origin/main"):
        found = subprocess.run(["git", "merge-base", "HEAD", main], cwd=ROOT, capture_output=True, text=True)
        if found.returncode == 0 and found.stdout.strip() != head:
            return found.stdout.strip()
    made_s = int(lines_of("git", "show", "-s", "--format=%ct", "HEAD")[0])
    older = lines_of("git", "rev-list", "-n", "1", f"--before={made_s - LANDING_S}", "HEAD")
    return older[0] if older else lines_of("git", "hash-object", "-t", "tree", "/dev/null")[0]


def files_to_check(arguments):
    if arguments.all:
        names = lines_of("git", "ls-files")
    else:
        names = lines_of("git", "diff", "--name-only", "--diff-filter=d", arguments.since or base_revision())
    names += lines_of("git", "ls-files", "--others", "--exclude-standard")
    names = sorted({name for name in names if name.endswith(SOURCES + HEADERS)})
    return [name for name in names if os.path.exists(os.path.join(ROOT, name))]


def commands(build):
    """The sources that a build compiles, relative to the top folder; none where it is not there."""
    path = os.path.join(build, "compile_commands.json")
    if not os.path.exists(path):
        return set()
    with open(path, encoding="utf-8") as file:
        return {os.path.relpath(os.path.join(entry["directory"], entry["file"]), ROOT) for entry in json.load(file)}


def includers(build):
    """Header to the sources that include it, both relative to the top folder, as the last build saw it."""
    found = {}
    members = []
    for line in lines_of("ninja", "-C", build, "-t", "deps") + [""]:
        if line.startswith("    "):
            path = os.path.normpath(os.path.join(build, line.strip()))
            if path.startswith(ROOT + os.sep):
                members.append(os.path.relpath(path, ROOT))
        elif members:
            for header in members[1:]:
                found.setdefault(header, []).append(members[0])
            members = []
    return found


def sources_to_analyse(names):
    """Source to the build whose command compiles it."""
    chosen = {}
    for build in BUILDS:
        known = commands(build)
        chosen |= {name: build for name in names if name in known and name not in chosen}
        by_header = includers(build) if known else {}
        for header in (name for name in names if name.endswith(HEADERS)):
            sources = [source for source in by_header.get(header, []) if source in known]
            if sources and not set(sources).intersection(chosen):
                chosen[min(sources, key=len)] = build
    return sorted(chosen.items())


def analyse(source, build):
    run = subprocess.run(["clang-tidy", "-p", build, "--quiet", source], cwd=ROOT, capture_output=True, text=True)
    return source, run.returncode, run.stdout + (run.stderr if not run.stdout else "")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--all", action="store_true", help="every file, not only changed ones")
    parser.add_argument("--since", metavar="REVISION", help="files changed since then (default: since main)")
    arguments = parser.parse_args()
    if not commands(BUILDS[0]):
        print("build/dev is not there: build it first with `cmake --preset dev && cmake --build build/dev`")
        return 2

    names = files_to_check(arguments)
    found = False
    for name in names:
        if subprocess.run(["clang-format", "--dry-run", "-Werror", name], cwd=ROOT, stderr=subprocess.DEVNULL).returncode:
            found = True
            print(f"{name}: its layout is not clang-format's: clang-format -i {name}")
    sources = sources_to_analyse(names)
    print(f"{len(names)} files for clang-format, {len(sources)} for clang-tidy", flush=True)
    reported_s = time.monotonic()
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        done = [pool.submit(analyse, source, build) for source, build in sources]
        for number, future in enumerate(as_completed(done), 1):
            source, status, output = future.result()
            if status:
                found = True
                print(f"{source}:\n{output}", flush=True)
            if time.monotonic() - reported_s > 10:
                reported_s = time.monotonic()
                print(f"clang-tidy: {number} of {len(sources)} files", flush=True)
    return 1 if found else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, subprocess.CalledProcessError) as error:
        # A tool that is missing, a revision that there is not, a folder without git.
        print(f"it could not be checked: {error}", getattr(error, "stderr", None) or "", sep="\n")
        sys.exit(2)
