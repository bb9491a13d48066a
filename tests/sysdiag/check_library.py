#!/usr/bin/env python3
"""Checks of the agent library as it was built, with the build machine's tools.

  check_library.py exports      what the headers declare is what the library exports, no more and no less
  check_library.py dynamic      needed libraries, run path, binding and unloading
  check_library.py constructors no object brings code that runs when the library is loaded
  check_library.py size         the stripped library stays small
  check_library.py headers      every public header compiles on its own as C11 and as C++20
  check_library.py signal-path  what code of the signal path calls is listed with its ground, and nothing else is

Each prints what is wrong, one line each, and ends with status 1 if anything is.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

NEEDED_OF_C_LIBRARY = re.compile(r"lib(c|m|dl|rt|pthread)\.so\.\d+|ld-linux-.*\.so\.\d+")
NEEDED_OF_OURS = {"libkova_platform.so", "libkova_rpc.so"}
SANITIZER = re.compile(r"lib(asan|ubsan|tsan)\.so\.\d+")
MOST_BYTES_STRIPPED = 200 * 1024
VARIABLE = re.compile(r"(kova::)?(\w+::)*g_\w+$|_GLOBAL_OFFSET_TABLE_")
# The last word before the parameters, the bounds of an array or the end.
DECLARATION = re.compile(r"\bKOVA_API\b[^;({\[=]*?(\w+)\s*[;({\[=]")
NOT_DECLARED = re.compile(r"/\*.*?\*/|//[^\n]*|#\s*define(?:[^\n]*\\\n)*[^\n]*", re.S)


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def declared_names(headers):
    return {name: header.name for header in headers
            for name in DECLARATION.findall(NOT_DECLARED.sub(" ", header.read_text()))}


def check_exports(options):
    declared = declared_names(options.header or sorted(options.headers.glob("*.h")))
    exported = {line.split()[-1] for line in run(options.nm, "-D", "--defined-only", options.library).splitlines()}
    for name in sorted(declared.keys() - exported):
        yield f"{name}: declared in {declared[name]}, not exported"
    for name in sorted(exported - declared.keys()):
        yield f"{name}: exported, declared in no public header"


def check_dynamic(options):
    text = run(options.readelf, "-dW", options.library)
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", text))
    for name in sorted(needed - NEEDED_OF_OURS):
        if not NEEDED_OF_C_LIBRARY.fullmatch(name) and not SANITIZER.fullmatch(name):
            yield f"needs {name}"
    for name in options.needs:
        if name not in needed:
            yield f"does not need {name}"
    run_path = re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", text)
    if run_path != ["$ORIGIN"]:
        yield f"run path is {run_path}, not $ORIGIN alone"
    flags = " ".join(re.findall(r"\(FLAGS(?:_1)?\)\s+(.*)", text)).split()
    for flag, why in (("BIND_NOW", "a first call in a signal handler would be bound there"),
                      ("NODELETE", "handlers and threads may still be inside when it is closed")):
        if flag not in flags:
            yield f"is not linked {flag}: {why}"


def check_constructors(options):
    for path in options.objects:
        for section in re.findall(r"\s(\.(?:init_array|preinit_array|ctors)\S*)\s", run(options.readelf, "-SW", path)):
            yield f"{path}: has {section}"
    # One entry is the compiler's own start-up file.
    sections = run(options.readelf, "-SW", options.library)
    found = re.search(r"\s\.init_array\s+INIT_ARRAY\s+\w+\s+\w+\s+(\w+)", sections)
    if found and int(found[1], 16) > 8:
        yield f"{options.library}: .init_array holds {int(found[1], 16) // 8} entries"


def check_size(options):
    with tempfile.TemporaryDirectory() as folder:
        stripped = os.path.join(folder, "stripped.so")
        run(options.strip, "-o", stripped, options.library)
        size = os.path.getsize(stripped)
    print(f"stripped: {size} bytes")
    if size >= MOST_BYTES_STRIPPED:
        yield f"{options.library}: {size} bytes stripped, {MOST_BYTES_STRIPPED} or more"


def check_headers(options):
    warnings = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only", f"-I{options.headers.parent}",
                *(f"-I{folder}" for folder in options.include)]
    # The records carry types of POSIX, which strict C11 shows on demand only.
    languages = ([options.cc, "-x", "c", "-std=c11", "-D_POSIX_C_SOURCE=200809L"],
                 [options.cxx, "-x", "c++", "-std=c++20"])
    for header in sorted(options.headers.glob("*.h")):
        for language in languages:
            # Twice, so that the guard is tried as well.
            source = f'#include "{header.resolve()}"\n' * 2 + "typedef int not_empty;\n"
            done = subprocess.run([*language, *warnings, "-"], input=source, capture_output=True, text=True)
            if done.returncode != 0:
                yield f"{header.name} as {language[3]}:\n{done.stderr}"


def read_listing(path):
    """Name to ground. A line is "name  ground"; names of C++ functions contain blanks, hence two."""
    listing = {}
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        name, _, ground = (part.strip() for part in line.partition("  "))
        if not ground:
            yield f"{path}:{number}: {name} has no ground"
        if name in listing:
            yield f"{path}:{number}: {name} is listed twice"
        listing[name] = ground
    return listing


def check_signal_path(options):
    listing = yield from read_listing(options.listing)
    by_source = {Path(path).name.removesuffix(".o"): path for path in options.objects}
    objects = {}
    for source in options.sources:
        if source.name in by_source:
            objects[source.name] = by_source[source.name]
        else:
            yield f"{source.name}: no object of that name"

    defined, called = set(), {}
    for source, path in objects.items():
        for line in run(options.nm, "-C", path).splitlines():
            kind, name = re.fullmatch(r"[0-9a-f]* *(\w) (.*)", line).groups()
            if kind in "Uw":
                called.setdefault(name, source)
            else:
                defined.add(name)
    # Variables are no calls; ours are told by their prefix.
    calls = {name for name in called.keys() - defined if not VARIABLE.match(name)}
    for name in sorted(calls - listing.keys()):
        yield f"{called[name]}: calls {name}, which is not listed in {options.listing.name}"
    for name in sorted(listing.keys() - calls):
        yield f"{options.listing.name}: {name} is listed, but no code of the signal path calls it"


def main():
    checks = {"exports": check_exports, "dynamic": check_dynamic, "constructors": check_constructors,
              "size": check_size, "headers": check_headers, "signal-path": check_signal_path}
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("check", choices=checks)
    parser.add_argument("--library")
    parser.add_argument("--headers", type=Path, help="folder of the public headers")
    parser.add_argument("--header", nargs="*", type=Path, help="headers instead of all of the folder")
    parser.add_argument("--needs", nargs="*", default=[], help="libraries that must be among the needed ones")
    parser.add_argument("--include", nargs="*", default=[], help="more folders that the headers include from")
    parser.add_argument("--objects", nargs="*", default=[])
    parser.add_argument("--sources", nargs="*", type=Path, default=[], help="source files of the signal path")
    parser.add_argument("--listing", type=Path, help="the calls of the signal path with their grounds")
    for tool in ("nm", "readelf", "strip", "cc"):
        parser.add_argument(f"--{tool}", default=tool)
    parser.add_argument("--cxx", default="c++")
    options = parser.parse_args()
    problems = list(checks[options.check](options))
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
