#!/usr/bin/env python3
"""Benchmark: generates scenes of growing size (and takes the real temple),
refines each with the tool, and prints per scene the time of each level, the
total time, the peak memory, accuracy and completeness of the initial and
refined meshes against the ground truth (the temple has none), and their
photo-consistency with the photographs (tessaline_photoconsistency: mean
NCC over the pixels seen by both cameras of the refinement's pairs).

    scripts/benchmark.py [--build build] [--out out/bench] [--scenes small,medium,large,temple]
                         [--presets reference,quality] [--profile] [--against OTHER_BUILD --rounds N]

With --presets every scene is refined with each preset named, through the
front end (build/tools/tessaline/tessaline refine SCENE MESH OUT --preset
NAME), and the script prints per scene each preset's accuracy and time; for
two or more it adds the ratio of each preset's accuracy, photo-consistency
and time to the first one's. Without --presets the scenes are refined by
tessaline_refine, the tool's own schedule.

With --against, every scene is refined --rounds times by each build in
turn (this build, the other, this build, ...), so that both see the same
machine, and the script prints each run's total, the medians and their
ratio.

Timing comes from the tool's own output as it streams: a level runs from the
end of the previous one (or the end of loading) to the "After free" memory
report that closes its refinement.

With --ranks 1,2,4 each scene is refined by that many MPI processes
(mpirun --oversubscribe), and the script prints per count the wall time,
each process's peak memory, and whether the output equals the plain run's
byte for byte; --threads sets the CPU threads of each process
(TESSALINE_THREADS).

With --profile the tool runs with TESSALINE_PROFILE=1: each level's
optimisation call then reports the time of the whole call and of its
iterations, and every kernel's time per iteration next to its floor (the
bytes it must move at least over the measured copy bandwidth). The script
prints those per scene and level, and the kernel split of one iteration at
the finest level of the last scene.
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
    # The real photographs and visual hull, refined where they lie.
    "temple": dict(views=16, width=640, height=480, real=True),
}
TEMPLE = os.environ.get("TESSALINE_TEMPLE_DIR",
                        os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "shared", "data",
                                     "templeSparseRing"))


def run_timed(cmd, cwd, env=None):
    """Runs cmd, returning (elapsed seconds, peak RSS in MiB, [(t, line)], exit status)."""
    start = time.monotonic()
    proc = subprocess.Popen(cmd, cwd=cwd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
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
    # wait4 gives this child's own peak resident set (kilobytes on Linux).
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = os.waitstatus_to_exitcode(status)
    elapsed = time.monotonic() - start
    return elapsed, usage.ru_maxrss / 1024.0, lines, proc.returncode


PRESETS = ("reference", "quality")
FRONT_END = "tools/tessaline/tessaline"


def refine_command(build, sfm, initial, output, lod, preset):
    """The command that refines with `preset`: the front end's, or the tool's own
    schedule through tessaline_refine when no preset is named."""
    if preset is None:
        return [os.path.join(build, "src/driver/tessaline_refine"), sfm, initial, output, lod]
    return [os.path.join(build, FRONT_END), "refine", sfm, initial, output, "--preset", preset]


def photoconsistency(build, scene_file, mesh):
    out = subprocess.run([os.path.join(build, "tools/photoconsistency/tessaline_photoconsistency"), scene_file, mesh,
                          "--json"], capture_output=True, text=True, check=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def compare(build, truth, mesh):
    out = subprocess.run([os.path.join(build, "tools/compare/tessaline_compare"), truth, mesh, "--json"],
                         capture_output=True, text=True, check=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def level_times(lines):
    marks = [t for t, l in lines if l.startswith("reading ")][:1]
    marks += [t for t, l in lines if l.startswith("After free")]
    return [b - a for a, b in zip(marks, marks[1:])]


def profiles(lines):
    """The profile blocks of a run, one per optimisation call, in level order:
    dict(call, iterations, count, per_iteration_ms, kernels=[(name, launches,
    ms, floor_mb, floor_ms)], bandwidth)."""
    blocks = []
    for _, l in lines:
        m = re.match(r"Profile: call ([\d.]+) s, iterations ([\d.]+) s, (\d+) iterations, ([\d.]+) ms", l)
        if m:
            blocks.append(dict(call=float(m[1]), iterations=float(m[2]), count=int(m[3]),
                               per_iteration_ms=float(m[4]), kernels=[], bandwidth=float("nan")))
            continue
        m = re.match(r"Profile: (.+?)\s+([\d.]+)\s+([\d.]+)\s+([\d.]+)\s+([\d.]+)\s+[\d.]+$", l)
        if m and blocks:
            blocks[-1]["kernels"].append((m[1], float(m[2]), float(m[3]), float(m[4]), float(m[5])))
        m = re.match(r"Profile: copy bandwidth ([\d.]+) GB/s", l)
        if m and blocks:
            blocks[-1]["bandwidth"] = float(m[1])
    return blocks


def print_profiles(rows):
    print()
    print(f"{'scene':8} {'level':>5} | {'call':>8} {'iterations':>10} {'count':>5} {'launches/iter':>13} "
          f"{'ms/iter':>9} {'floor ms/iter':>13} {'over floor':>10}")
    for name, blocks in rows:
        for level, b in zip((2, 1, 0), blocks):
            kernels = [k for k in b["kernels"] if k[0] != "all kernels"]
            floor = sum(k[4] for k in kernels)
            launches = sum(k[1] for k in kernels)
            over = b["per_iteration_ms"] / floor if floor > 0 else float("nan")
            print(f"{name:8} {level:5d} | {b['call']:7.3f}s {b['iterations']:9.3f}s {b['count']:5d} "
                  f"{launches:13.1f} {b['per_iteration_ms']:9.3f} {floor:13.3f} {over:9.1f}x")
    print("launches/iter: kernel launches of one iteration; a replayed graph counts as one")
    if not rows or not rows[-1][-1]:
        return
    name, last = rows[-1][0], rows[-1][-1][-1]
    print(f"\none iteration at level 0 of scene {name}, by kernel "
          f"(floor at {last['bandwidth']:.1f} GB/s copy bandwidth):")
    print(f"{'kernel':58} {'launches':>8} {'ms':>9} {'share':>6} {'floor MB':>9} {'floor ms':>9}")
    total = next((k[2] for k in last["kernels"] if k[0] == "all kernels"), float("nan"))
    for k in sorted(last["kernels"], key=lambda k: (k[0] == "all kernels", -k[2])):
        print(f"{k[0]:58} {k[1]:8.1f} {k[2]:9.3f} {100 * k[2] / total:5.1f}% {k[3]:9.2f} {k[4]:9.3f}")


def prepare(build, name, out):
    """Makes the scene's folder; returns (folder, scene file, initial mesh, truth or None)."""
    p = SCENES[name]
    if p.get("real"):
        if not os.path.isfile(os.path.join(TEMPLE, "temple.sfm")):
            sys.exit(f"the temple is missing: {TEMPLE} (set TESSALINE_TEMPLE_DIR)")
        return TEMPLE, "temple.sfm", "temple_hull.ply", None
    os.makedirs(out, exist_ok=True)
    subprocess.run([os.path.join(build, "tools/synth/tessaline_synth"), out, "--views", str(p["views"]),
                    "--width", str(p["width"]), "--height", str(p["height"])],
                   check=True, stdout=subprocess.DEVNULL)
    return out, "scene.sfm", "initial.ply", os.path.join(out, "truth.ply")


def refine(build, folder, sfm, initial, output, lod, env, preset=None):
    elapsed, peak, lines, rc = run_timed(refine_command(build, sfm, initial, output, lod, preset), folder, env)
    # tessaline_refine ends a complete run with 1, the front end with 0.
    if rc != (1 if preset is None else 0) or not os.path.isfile(output):
        print("\n".join(l for _, l in lines[-20:]), file=sys.stderr)
        sys.exit(f"{build}: the tool failed on {folder} (exit {rc})")
    return elapsed, peak, lines


def refine_shared(build, folder, sfm, initial, output, lod, ranks, env):
    """The tool under mpirun with `ranks` processes: (seconds, [peak MiB per process])."""
    cmd = ["mpirun", "--oversubscribe", "-n", str(ranks)]
    if os.geteuid() == 0:
        cmd.append("--allow-run-as-root")
    cmd += [os.path.join(build, "src/driver/tessaline_refine"), sfm, initial, output, lod]
    elapsed, _, lines, rc = run_timed(cmd, folder, env)
    if rc not in (0, 1) or not os.path.isfile(output):
        print("\n".join(l for _, l in lines[-20:]), file=sys.stderr)
        sys.exit(f"the tool failed under mpirun -n {ranks} on {folder}")
    peaks = next(([float(v) for v in l.split(":")[1].split()] for _, l in lines
                  if l.startswith("Peak memory per process")), [])
    return elapsed, peaks


def bench_ranks(build, args, env):
    print(f"{'scene':8} {'ranks':>5} {'threads':>7} | {'total':>8} {'same bytes':>10} | peak MiB per process")
    for name in args.scenes.split(","):
        folder, sfm, initial, _ = prepare(build, name, os.path.abspath(os.path.join(args.out, name)))
        plain = os.path.abspath(os.path.join(args.out, f"{name}-plain.ply"))
        elapsed, peak, _ = refine(build, folder, sfm, initial, plain, args.lod, env)
        with open(plain, "rb") as f:
            plain_bytes = f.read()
        print(f"{name:8} {'plain':>5} {args.threads or 'all':>7} | {elapsed:7.1f}s {'-':>10} | {peak:.0f}", flush=True)
        for ranks in [int(r) for r in args.ranks.split(",")]:
            output = os.path.abspath(os.path.join(args.out, f"{name}-{ranks}ranks.ply"))
            if os.path.exists(output):
                os.remove(output)
            elapsed, peaks = refine_shared(build, folder, sfm, initial, output, args.lod, ranks, env)
            with open(output, "rb") as f:
                same = f.read() == plain_bytes
            peak_text = " ".join(f"{p:.0f}" for p in peaks) if peaks else "(one process: see the plain run)"
            print(f"{name:8} {ranks:5d} {args.threads or 'all':>7} | {elapsed:7.1f}s {str(same):>10} | {peak_text}",
                  flush=True)


def ncc_text(pc):
    return f"{pc['mean_ncc']:.4f}" if pc["mean_ncc"] is not None else "none"


def print_results(rows, presets):
    print(f"{'scene':8} {'views':>5} {'size':>9} {'preset':>9} | {'level 2':>8} {'level 1':>8} {'level 0':>8} "
          f"{'total':>8} {'peak MiB':>9} | {'acc before':>10} {'acc after':>10} {'comp before':>11} "
          f"{'comp after':>10} | {'NCC before':>10} {'NCC after':>9} {'pixels after':>12}")
    for r in rows:
        p, b, a = SCENES[r["name"]], r["before"], r["after"]
        # The front end hides the tool's per-level lines: its runs show "-".
        lt = [f"{t:7.1f}s" for t in r["levels"]] + [f"{'-':>8}"] * (3 - len(r["levels"]))
        figures = (f"{b['accuracy_mean_rel']:10.5f} {a['accuracy_mean_rel']:10.5f} "
                   f"{b['completeness_mean_rel']:11.5f} {a['completeness_mean_rel']:10.5f}") if b else \
            f"{'(no ground truth)':>45}"
        print(f"{r['name']:8} {p['views']:5d} {p['width']:4d}x{p['height']:<4d} {r['preset'] or 'tool':>9} | "
              f"{lt[0]} {lt[1]} {lt[2]} {r['elapsed']:7.1f}s {r['peak']:9.0f} | {figures} | "
              f"{ncc_text(r['ncc'][0]):>10} {ncc_text(r['ncc'][1]):>9} {r['ncc'][1]['valid_pixels']:12d}")
    print("accuracy/completeness: mean distance as a fraction of the ground truth's bounding-box diagonal; "
          "NCC: photo-consistency, mean over the pixels counted")
    if presets != [None]:
        print_preset_summary(rows, presets)
    if len(presets) > 1:
        print(f"\n{'scene':8} {'preset':>9} | {'accuracy gain':>13} {'NCC change':>10} {'time ratio':>10}"
              f"   (against {presets[0]}; gain = its accuracy / this one's)")
        for r in rows:
            first = next(q for q in rows if q["name"] == r["name"] and q["preset"] == presets[0])
            if r is first:
                continue
            gain = (first["after"]["accuracy_mean_rel"] / r["after"]["accuracy_mean_rel"]) if r["after"] else None
            change = ((r["ncc"][1]["mean_ncc"] or 0.0) - (first["ncc"][1]["mean_ncc"] or 0.0))
            gain_text = f"{gain:12.2f}x" if gain else f"{'-':>13}"
            print(f"{r['name']:8} {r['preset']:>9} | {gain_text} {change:+10.4f} "
                  f"{r['elapsed'] / first['elapsed']:9.2f}x")
    print(rows[0]["backend"] if rows else "")


def print_preset_summary(rows, presets):
    """Per scene one line: each preset's mean accuracy (absolute) and time."""
    print(f"\n{'scene':8} {'initial':>10} | " + " | ".join(f"{p + ' acc':>14} {'time':>7}" for p in presets))
    for name in dict.fromkeys(r["name"] for r in rows):
        mine = {r["preset"]: r for r in rows if r["name"] == name}
        first = mine[presets[0]]
        initial = f"{first['before']['accuracy_mean']:10.5f}" if first["before"] else f"{'-':>10}"
        cells = []
        for p in presets:
            r = mine[p]
            acc = f"{r['after']['accuracy_mean']:14.5f}" if r["after"] else f"{'-':>14}"
            cells.append(f"{acc} {r['elapsed']:6.1f}s")
        print(f"{name:8} {initial} | " + " | ".join(cells))
    print("acc: mean distance to the ground truth (accuracy, scene units)")


def median(values):
    v = sorted(values)
    return v[len(v) // 2] if len(v) % 2 else 0.5 * (v[len(v) // 2 - 1] + v[len(v) // 2])


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default="build")
    ap.add_argument("--out", default="out/bench")
    ap.add_argument("--scenes", default="small,medium,large,temple")
    ap.add_argument("--lod", default="0", help="level of detail passed to the tool")
    ap.add_argument("--presets", help="presets to refine each scene with through the front end, comma separated "
                                      "(default: the tool's own schedule through tessaline_refine)")
    ap.add_argument("--profile", action="store_true", help="time the optimisation per call and per kernel")
    ap.add_argument("--against", help="another build to time against, in turns with this one")
    ap.add_argument("--rounds", type=int, default=3, help="runs of each build with --against")
    ap.add_argument("--ranks", help="comma-separated MPI process counts, e.g. 1,2,4")
    ap.add_argument("--threads", type=int, help="CPU threads of each process (TESSALINE_THREADS)")
    args = ap.parse_args()
    env = dict(os.environ, TESSALINE_PROFILE="1") if args.profile else None
    if args.threads:
        env = dict(env or os.environ, TESSALINE_THREADS=str(args.threads))
    build = os.path.abspath(args.build)
    for name in args.scenes.split(","):
        if name not in SCENES:
            sys.exit(f"unknown scene {name}; the scenes are {', '.join(SCENES)}")
    presets = args.presets.split(",") if args.presets else [None]
    for preset in presets:
        if preset is not None and preset not in PRESETS:
            sys.exit(f"unknown preset {preset}; the presets are {', '.join(PRESETS)}")
    if presets != [None] and not os.path.isfile(os.path.join(build, FRONT_END)):
        sys.exit(f"--presets needs the front end, which is missing: {os.path.join(build, FRONT_END)} "
                 "(build the target tessaline)")

    if args.ranks:
        return bench_ranks(build, args, env)

    if args.against:
        other = os.path.abspath(args.against)
        print(f"{'scene':8} {'round':>5} | {'this build':>10} {'other build':>11}")
        for name in args.scenes.split(","):
            folder, sfm, initial, _ = prepare(build, name, os.path.abspath(os.path.join(args.out, name)))
            output = os.path.abspath(os.path.join(args.out, f"{name}-timed.ply"))
            ours, theirs = [], []
            for r in range(args.rounds):
                ours.append(refine(build, folder, sfm, initial, output, args.lod, None)[0])
                theirs.append(refine(other, folder, sfm, initial, output, args.lod, None)[0])
                print(f"{name:8} {r + 1:5d} | {ours[-1]:9.2f}s {theirs[-1]:10.2f}s", flush=True)
            print(f"{name:8} {'median':>5} | {median(ours):9.2f}s {median(theirs):10.2f}s   "
                  f"the other build takes {median(theirs) / median(ours):.2f} times as long")
        return

    rows = []
    for name in args.scenes.split(","):
        folder, sfm, initial, truth = prepare(build, name, os.path.abspath(os.path.join(args.out, name)))
        before = compare(build, truth, os.path.join(folder, initial)) if truth else None
        ncc_before = photoconsistency(build, os.path.join(folder, sfm), os.path.join(folder, initial))
        for preset in presets:
            output = os.path.abspath(os.path.join(args.out, f"{name}-{preset or 'tool'}-refined.ply"))
            if os.path.exists(output):
                os.remove(output)
            elapsed, peak, lines = refine(build, folder, sfm, initial, output, args.lod, env, preset)
            after = compare(build, truth, output) if truth else None
            ncc_after = photoconsistency(build, os.path.join(folder, sfm), output)
            backend = next((l for _, l in lines if l.startswith("Device backend")), "?")
            rows.append(dict(name=name, preset=preset, levels=level_times(lines), elapsed=elapsed, peak=peak,
                             before=before, after=after, ncc=(ncc_before, ncc_after), backend=backend,
                             profiles=profiles(lines)))
    print_results(rows, presets)
    if args.profile:
        print_profiles([(r["name"] if len(presets) == 1 else f"{r['name']}/{r['preset'][0]}", r["profiles"])
                        for r in rows])


if __name__ == "__main__":
    main()
