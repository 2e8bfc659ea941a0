#!/usr/bin/env python3
"""Benchmark: generates scenes of growing size, refines each with the tool,
and prints per scene the time of each level, the total time, the peak
memory, and accuracy and completeness of the initial and refined meshes
against the ground truth.

    scripts/benchmark.py [--build build] [--out out/bench] [--scenes small,medium,large]

Timing comes from the tool's own output as it streams: a level runs from the
end of the previous one (or the end of loading) to the "After free" memory
report that closes its refinement.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import time

SCENES = {
    "small": dict(views=8, width=320, height=240),
    "medium": dict(views=16, width=640, height=480),
    "large": dict(views=32, width=1024, height=768),
}


def run_timed(cmd, cwd):
    """Runs cmd, returning (elapsed seconds, peak RSS in MiB, [(t, line)])."""
    start = time.monotonic()
    proc = subprocess.Popen(["/usr/bin/time", "-f", "PEAK_KB %M"] + cmd, cwd=cwd,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    lines, buf = [], b""
    while True:
        chunk = proc.stdout.read1(4096)
        if not chunk:
            break
        buf += chunk
        parts = re.split(rb"[\r\n]", buf)
        buf = parts.pop()
        now = time.monotonic() - start
        lines += [(now, p.decode(errors="replace")) for p in parts if p]
    err = proc.stderr.read().decode(errors="replace")
    proc.wait()
    elapsed = time.monotonic() - start
    peak = re.search(r"PEAK_KB (\d+)", err)
    return elapsed, (int(peak.group(1)) / 1024.0 if peak else float("nan")), lines, proc.returncode


def compare(build, truth, mesh):
    out = subprocess.run([os.path.join(build, "tools/compare/tessaline_compare"), truth, mesh, "--json"],
                         capture_output=True, text=True, check=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def level_times(lines):
    marks = [t for t, l in lines if l.startswith("reading ")][:1]
    marks += [t for t, l in lines if l.startswith("After free")]
    return [b - a for a, b in zip(marks, marks[1:])]


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default="build")
    ap.add_argument("--out", default="out/bench")
    ap.add_argument("--scenes", default="small,medium,large")
    ap.add_argument("--lod", default="0", help="level of detail passed to the tool")
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    rows = []
    for name in args.scenes.split(","):
        p = SCENES[name]
        out = os.path.abspath(os.path.join(args.out, name))
        os.makedirs(out, exist_ok=True)
        subprocess.run([os.path.join(build, "tools/synth/tessaline_synth"), out, "--views", str(p["views"]),
                        "--width", str(p["width"]), "--height", str(p["height"])],
                       check=True, stdout=subprocess.DEVNULL)
        elapsed, peak, lines, rc = run_timed(
            [os.path.join(build, "src/driver/tessaline_refine"), "scene.sfm", "initial.ply", "refined.ply", args.lod],
            out)
        if rc != 1:
            print("\n".join(l for _, l in lines[-20:]), file=sys.stderr)
            sys.exit(f"tool failed on scene {name} (exit {rc})")
        before = compare(build, os.path.join(out, "truth.ply"), os.path.join(out, "initial.ply"))
        after = compare(build, os.path.join(out, "truth.ply"), os.path.join(out, "refined.ply"))
        facets = [l for _, l in lines if l.startswith("subdividing") or l.startswith("stop dividing")]
        backend = next((l for _, l in lines if l.startswith("Device backend")), "?")
        rows.append((name, p, level_times(lines), elapsed, peak, before, after, backend, len(facets)))

    print(f"{'scene':8} {'views':>5} {'size':>9} | {'level 2':>8} {'level 1':>8} {'level 0':>8} {'total':>8} "
          f"{'peak MiB':>9} | {'acc before':>10} {'acc after':>10} {'comp before':>11} {'comp after':>10}")
    for name, p, lt, el, peak, b, a, backend, _ in rows:
        lt = lt + [float("nan")] * (3 - len(lt))
        print(f"{name:8} {p['views']:5d} {p['width']:4d}x{p['height']:<4d} | "
              f"{lt[0]:7.1f}s {lt[1]:7.1f}s {lt[2]:7.1f}s {el:7.1f}s {peak:9.0f} | "
              f"{b['accuracy_mean_rel']:10.5f} {a['accuracy_mean_rel']:10.5f} "
              f"{b['completeness_mean_rel']:11.5f} {a['completeness_mean_rel']:10.5f}")
    print("accuracy/completeness: mean distance as a fraction of the ground truth's bounding-box diagonal")
    print(rows[0][7] if rows else "")


if __name__ == "__main__":
    main()
