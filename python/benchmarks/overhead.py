#!/usr/bin/env python3
"""The cost of refining through Python against the command line: the temple
refined by tessaline_refine and by tessaline.refine (load, refine, save, all
in one process), in turn, and the import time of the package.

    overhead.py TESSALINE_REFINE TEMPLE_DIR [--level 2] [--rounds 2]

Run it with the Python of an environment where the package is installed.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

PYTHON_RUN = """
import sys, time
start = time.perf_counter()
import tessaline
scene = tessaline.Scene.load("temple.sfm")
mesh = tessaline.Mesh.load("temple_hull.ply")
loaded = time.perf_counter()
refined = tessaline.refine(scene, mesh, finest_level=int(sys.argv[2]), preset="reference")
refined_at = time.perf_counter()
refined.save(sys.argv[1])
print(loaded - start, refined_at - loaded)
"""


def timed(command, cwd):
    start = time.perf_counter()
    out = subprocess.run(command, cwd=cwd, stdout=subprocess.PIPE, text=True)
    return time.perf_counter() - start, out.stdout


def import_seconds():
    runs = []
    for _ in range(5):
        start = time.perf_counter()
        subprocess.run([sys.executable, "-c", "import tessaline"], check=True)
        runs.append(time.perf_counter() - start)
    bare = []
    for _ in range(5):
        start = time.perf_counter()
        subprocess.run([sys.executable, "-c", "pass"], check=True)
        bare.append(time.perf_counter() - start)
    return statistics.median(runs) - statistics.median(bare)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tool")
    parser.add_argument("temple")
    parser.add_argument("--level", type=int, default=2)
    parser.add_argument("--rounds", type=int, default=2)
    args = parser.parse_args()
    print(f"import tessaline: {import_seconds() * 1000:.0f} ms (median of 5 fresh processes, less bare start-up)")
    tool_times, python_times = [], []
    with tempfile.TemporaryDirectory() as out:
        for _ in range(args.rounds):
            seconds, _ = timed([os.path.abspath(args.tool), "temple.sfm", "temple_hull.ply",
                                f"{out}/tool.ply", str(args.level)], args.temple)
            tool_times.append(seconds)
            seconds, parts = timed([sys.executable, "-c", PYTHON_RUN, f"{out}/python.ply", str(args.level)],
                                   args.temple)
            python_times.append(seconds)
            print(f"tool {tool_times[-1]:.2f} s, python {python_times[-1]:.2f} s "
                  f"(load {float(parts.split()[0]):.2f} s, refine {float(parts.split()[1]):.2f} s)")
        same = open(f"{out}/tool.ply", "rb").read() == open(f"{out}/python.ply", "rb").read()
    tool, python = statistics.median(tool_times), statistics.median(python_times)
    print(f"level {args.level}: tool {tool:.2f} s, python {python:.2f} s, "
          f"overhead {python - tool:+.2f} s ({(python / tool - 1) * 100:+.1f}%), same bytes: {same}")


if __name__ == "__main__":
    main()
