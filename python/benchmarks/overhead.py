#!/usr/bin/env python3
"""The cost of refining through Python against the command line: the temple
refined by tessaline_refine and by tessaline.refine (load, refine, save, all
in one process), in turn, and the import time of the package.

    overhead.py TESSALINE_REFINE TEMPLE_DIR [--level 2] [--rounds 2]

Run it with the Python of an environment where the package is installed.
"""

import argparse
import os
import resource
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


def same_mesh(tool_path, python_path):
    """The tool writes ASCII PLY with six significant digits, Python binary
    PLY: the meshes agree when every vertex prints alike and every facet is
    equal."""
    import tessaline

    tool, python = tessaline.Mesh.load(tool_path), tessaline.Mesh.load(python_path)

    def rows(mesh):
        return [" ".join(f"{float(c):g}" for c in vertex) for vertex in mesh.vertices]

    return rows(tool) == rows(python) and tool.facets.tolist() == python.facets.tolist()


def children_cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def timed(command, cwd):
    """Wall-clock and processor seconds of a command, and its output. On a
    machine shared with other work the processor time is the steadier one."""
    start, cpu = time.perf_counter(), children_cpu_seconds()
    out = subprocess.run(command, cwd=cwd, stdout=subprocess.PIPE, text=True)
    return time.perf_counter() - start, children_cpu_seconds() - cpu, out.stdout


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
    tool_runs, python_runs = [], []
    with tempfile.TemporaryDirectory() as out:
        for _ in range(args.rounds):
            tool_runs.append(timed([os.path.abspath(args.tool), "temple.sfm", "temple_hull.ply",
                                    f"{out}/tool.ply", str(args.level)], args.temple))
            python_runs.append(timed([sys.executable, "-c", PYTHON_RUN, f"{out}/python.ply", str(args.level)],
                                     args.temple))
            (tool_wall, tool_cpu, _), (wall, cpu, parts) = tool_runs[-1], python_runs[-1]
            load, refine = (float(x) for x in parts.split())
            print(f"tool {tool_wall:.2f} s ({tool_cpu:.2f} s cpu), python {wall:.2f} s ({cpu:.2f} s cpu; "
                  f"load {load:.2f} s, refine {refine:.2f} s)")
        same = same_mesh(f"{out}/tool.ply", f"{out}/python.ply")
    for what, index in (("wall", 0), ("cpu", 1)):
        tool = statistics.median(run[index] for run in tool_runs)
        python = statistics.median(run[index] for run in python_runs)
        print(f"level {args.level}, median {what}: tool {tool:.2f} s, python {python:.2f} s, "
              f"overhead {python - tool:+.2f} s ({(python / tool - 1) * 100:+.1f}%)")
    print(f"same mesh: {same}")

if __name__ == "__main__":
    main()
