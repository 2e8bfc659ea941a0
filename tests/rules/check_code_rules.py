#!/usr/bin/env python3
"""Rules of the code base that a reader relies on:

  - no function in src/ and tools/ is longer than 80 lines (kernel bodies
    included), measured by lizard;
  - nothing under src/ProgramCUDA or src/mesh reads the environment: the run
    context is read once by a program's entry and handed down;
  - no test sets the environment to steer the code: tests set the run
    context's fields;
  - include/TriMesh.h is the mesh record alone: it declares no free function.

    check_code_rules.py SOURCE_DIR [LIZARD]

Exits 1 naming every breach, and also when a rule could not be checked
(no lizard, or no source file found).
"""
import os
import re
import subprocess
import sys

MAX_LINES = 80
MIN_FUNCTIONS = 200
SOURCE_EXTENSIONS = (".cpp", ".h", ".cu", ".cuh", ".inl")


def sources(root, *folders):
    for folder in folders:
        for path, _, names in os.walk(os.path.join(root, folder)):
            for name in sorted(names):
                if name.endswith(SOURCE_EXTENSIONS):
                    yield os.path.join(path, name)


def long_functions(root, lizard, minimum_functions):
    files = list(sources(root, "src", "tools"))
    if not files:
        return ["no source file found under src/ and tools/"]
    # lizard reads .cu and .cuh as C++ only when told the language.
    try:
        out = subprocess.run([lizard, "-l", "cpp", "--csv", *files], capture_output=True, text=True)
    except OSError as e:
        return [f"lizard could not be started ({lizard}): {e}"]
    breaches, measured = [], 0
    for line in out.stdout.splitlines():
        fields = line.split(",")
        if len(fields) < 11 or not fields[4].isdigit():
            continue
        measured += 1
        length = int(fields[4])
        if length > MAX_LINES:
            breaches.append(f"{fields[6].strip(chr(34))}: {fields[7].strip(chr(34))} is {length} lines long")
    if measured < minimum_functions:
        breaches.append(f"lizard measured only {measured} functions (exit {out.returncode}): {out.stderr[:300]}")
    return breaches


def matches(files, pattern):
    regex = re.compile(pattern)
    hits = []
    for f in files:
        with open(f, errors="replace") as text:
            for number, line in enumerate(text, 1):
                if regex.search(line.split("//")[0]):
                    hits.append(f"{f}:{number}: {line.strip()}")
    return hits


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    root = sys.argv[1]
    lizard = sys.argv[2] if len(sys.argv) > 2 else "lizard"
    device_and_mesh = list(sources(root, "src/ProgramCUDA", "src/mesh"))
    tests = list(sources(root, "tests"))
    if not device_and_mesh or not tests:
        print("no sources found to check")
        return 1
    # The code base has hundreds of functions; far fewer means lizard did not
    # read it, and the length rule was not checked.
    breaches = long_functions(root, lizard, MIN_FUNCTIONS)
    breaches += [f"reads the environment: {h}" for h in matches(device_and_mesh, r"\bgetenv\s*\(")]
    breaches += [f"sets the environment: {h}" for h in matches(tests, r"\b(setenv|unsetenv|putenv)\s*\(")]
    record = os.path.join(root, "include", "TriMesh.h")
    breaches += [f"declares a function: {h}"
                 for h in matches([record], r"^[A-Za-z_][\w:<>,\s\*&]*\s+[A-Za-z_]\w*\s*\([^;{]*\)\s*;")]
    for b in breaches:
        print(b)
    print(f"{len(breaches)} breach(es) of the code rules")
    return 1 if breaches else 0


if __name__ == "__main__":
    sys.exit(main())
