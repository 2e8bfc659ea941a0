#!/usr/bin/env python3
"""Robustness check: feeds damaged inputs to tessaline_refine and to
`tessaline_tools import`, built with the address and undefined-behaviour
sanitizers, and reports every run that crashes, trips a sanitizer, hangs,
or leaves a file behind after refusing its input.

    scripts/fuzz_inputs.py [--build build-asan] [--cases 500] [--seed 1] [--only refine|import]

The build folder is configured and built when its programs are missing
(CPU backend, sanitizers on, about five minutes on two cores). The refine
cases start from a small generated scene and damage its scene file, its mesh
or one photograph at random (tokens replaced by awkward values, lines
dropped, repeated or swapped, header lines changed, bytes overwritten, files
cut short), then run a fixed list of inputs that parse but mean nothing
sensible (zero or negative focal lengths, degenerate facets, meshes behind
the cameras, ...). The import cases damage one file of the temple's COLMAP
model (text or binary) or its binary PLY mesh; they are skipped when
../shared/data is absent.

A run passes when it ends with status 0, 1 or 2, no sanitizer report, and,
if it printed an "Error", no output file. Exit status 1 when any run failed.
"""
import argparse
import os
import random
import re
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DATA = os.path.join(ROOT, "..", "shared", "data", "templeSparseRing")
SANITIZERS = "-fsanitize=address,undefined,float-cast-overflow"
AWKWARD = ["0", "-1", "1", "2", "-2147483648", "2147483647", "4294967296", "99999999999999999999",
           "1e38", "-1e38", "1e39", "nan", "inf", "-inf", "0.5", "-0.0", "abc", "", "3e-45", "65536",
           "1000001", "255", "256", "uchar", "int", "float", "double", "list", "face", "vertex",
           "element", "property", "end_header", "ply", "binary_little_endian", "\x00", "\xff\xff"]
HEADER_LINES = ["property float w", "property uchar alpha", "property list uchar int vertex_indices",
                "element edge 3", "property double x", "comment x", "obj_info y"]


class Damage:
    """Random damage to text and binary files."""

    def __init__(self, seed):
        self.rng = random.Random(seed)

    def text(self, data, header_lines=0):
        rng = self.rng
        lines = data.split("\n")
        for _ in range(rng.randint(1, 3)):
            if not lines:
                break
            op = rng.choice(["token", "token", "token", "drop", "repeat", "cut", "bytes", "swap", "header"])
            header = [i for i, l in enumerate(lines[:header_lines]) if l.startswith(("element", "property", "format"))]
            if op == "header" and header:
                i = rng.choice(header)
                how = rng.randrange(4)
                if how == 0:
                    del lines[i]
                elif how == 1:
                    lines.insert(i, rng.choice(HEADER_LINES))
                elif how == 2:
                    lines[i] = lines[i].replace("float", rng.choice(["double", "uchar", "int", "short", "float32"]))
                else:
                    lines[i] = re.sub(r"\d+", str(rng.choice([0, 1, 3, 10**6, 10**10, -5, 2**31])), lines[i])
            elif op in ("token", "header"):
                i = rng.randrange(len(lines))
                tokens = lines[i].split(" ")
                tokens[rng.randrange(len(tokens))] = rng.choice(
                    AWKWARD + [str(rng.randint(-5, 2000)), str(rng.uniform(-10, 10))])
                lines[i] = " ".join(tokens)
            elif op == "drop":
                del lines[rng.randrange(len(lines))]
            elif op == "repeat":
                i = rng.randrange(len(lines))
                lines.insert(i, lines[i])
            elif op == "swap":
                i, j = rng.randrange(len(lines)), rng.randrange(len(lines))
                lines[i], lines[j] = lines[j], lines[i]
            else:
                raw = bytearray("\n".join(lines).encode("latin-1", "replace"))
                if op == "cut":
                    del raw[rng.randrange(len(raw) + 1):]
                else:
                    for _ in range(rng.randint(1, 4)):
                        if raw:
                            raw[rng.randrange(len(raw))] = rng.randrange(256)
                lines = raw.decode("latin-1").split("\n")
        return "\n".join(lines)

    def binary(self, data):
        rng = self.rng
        raw = bytearray(data)
        op = rng.choice(["flip", "cut", "ones", "zeros", "count"])
        if op == "cut" or not raw:
            return bytes(raw[:rng.randrange(len(raw) + 1)])
        if op == "flip":
            for _ in range(rng.randint(1, 8)):
                raw[rng.randrange(len(raw))] = rng.randrange(256)
        elif op in ("ones", "zeros"):
            i = rng.randrange(max(1, len(raw) - 8))
            raw[i:i + 8] = (b"\xff" if op == "ones" else b"\x00") * 8
        else:
            # A 64-bit count or id near the start of a record, where the readers size their tables.
            i = rng.choice([0, 8, 12, 16, 20, 24, 32, 40]) if rng.random() < 0.7 else rng.randrange(max(1, len(raw) - 8))
            raw[i:i + 8] = rng.choice([2**63 - 1, 2**32, 10**6, 0, 1, 2**31]).to_bytes(8, "little")
        return bytes(raw[:len(data)])

    def image(self, data):
        how = self.rng.randrange(4)
        if how == 0:
            return data[:self.rng.randrange(len(data))]
        if how == 1:
            return self.binary(data)
        return b"" if how == 2 else b"not an image\n"


def run(cmd, cwd, fresh_dir, timeout=300):
    """Runs one case; returns a list of what went wrong (empty when it passed) and the output."""
    env = dict(os.environ, ASAN_OPTIONS="detect_leaks=1", UBSAN_OPTIONS="print_stacktrace=1")
    try:
        proc = subprocess.run(cmd, cwd=cwd, capture_output=True, timeout=timeout, env=env)
    except subprocess.TimeoutExpired:
        return ["hang"], ""
    text = (proc.stdout + proc.stderr).decode("latin-1")
    faults = []
    if "Sanitizer" in text or "runtime error" in text:
        faults.append("sanitizer")
    if proc.returncode not in (0, 1, 2):
        faults.append(f"exit status {proc.returncode}")
    written = sorted(os.listdir(fresh_dir)) if os.path.isdir(fresh_dir) else []
    if "Error" in text and written:
        faults.append(f"refused but wrote {written}")
    return faults, text


OUTCOMES = {"refused": 0, "completed": 0}


def report(name, faults, text, case_dir, failures):
    OUTCOMES["refused" if "Error" in text else "completed"] += 1
    if faults:
        failures.append(name)
        with open(os.path.join(case_dir, "log.txt"), "w") as f:
            f.write(text)
        print(f"FAIL {name}: {', '.join(faults)} (inputs and log in {case_dir})", flush=True)
    else:
        shutil.rmtree(case_dir)


def refine_case(build, scene, case_dir, edit):
    shutil.rmtree(case_dir, ignore_errors=True)
    shutil.copytree(scene, os.path.join(case_dir, "in"))
    edit(os.path.join(case_dir, "in"))
    os.makedirs(os.path.join(case_dir, "out"))
    # Image paths in a scene file are relative to the working directory.
    return run([os.path.join(build, "src/driver/tessaline_refine"), "scene.sfm", "initial.ply", "../out/refined.ply"],
               os.path.join(case_dir, "in"), os.path.join(case_dir, "out"))


def rewrite(path, change, binary=False):
    mode = "b" if binary else ""
    with open(path, "r" + mode, **({} if binary else {"encoding": "latin-1"})) as f:
        data = f.read()
    with open(path, "w" + mode, **({} if binary else {"encoding": "latin-1"})) as f:
        f.write(change(data))


def random_refine_edit(damage):
    target = damage.rng.choice(["scene", "scene", "mesh", "mesh", "mesh", "image", "both"])

    def edit(folder):
        if target in ("scene", "both"):
            rewrite(os.path.join(folder, "scene.sfm"), damage.text)
        if target in ("mesh", "both"):
            rewrite(os.path.join(folder, "initial.ply"), lambda d: damage.text(d, header_lines=12))
        if target == "image":
            rewrite(os.path.join(folder, f"view_00{damage.rng.randrange(4)}.png"), damage.image, binary=True)
    return target, edit


def meaningless_inputs(scene):
    """Inputs that parse but describe nothing a camera could see sensibly."""
    sfm = open(os.path.join(scene, "scene.sfm")).read().split("\n")
    ply = open(os.path.join(scene, "initial.ply")).read().split("\n")
    end = ply.index("end_header")
    nv = int(ply[2].split()[2])
    verts, faces = ply[end + 1:end + 1 + nv], [l for l in ply[end + 1 + nv:] if l]

    def camera(field, value):
        def change(lines):
            tokens = lines[1].split()
            tokens[field] = value
            return [lines[0], " ".join(tokens)] + lines[2:]
        return ("scene", change)

    def mesh(vs, fs):
        head = ["ply", "format ascii 1.0", f"element vertex {len(vs)}", "property float x", "property float y",
                "property float z", f"element face {len(fs)}", "property list uchar int vertex_indices", "end_header"]
        return ("mesh", lambda _: head + vs + fs + [""])

    def moved(scale, dz=0.0):
        return [" ".join(str(float(c) * scale + (dz if k == 2 else 0.0)) for k, c in enumerate(v.split())) for v in verts]

    a, b = faces[0].split()[1:3]
    return {
        "focal length 0": camera(13, "0"), "negative focal length": camera(13, "-100"),
        "focal length 1e-30": camera(13, "1e-30"), "focal length 1e30": camera(13, "1e30"),
        "rotation all zero": ("scene", lambda l: [l[0], " ".join(l[1].split()[:1] + ["0"] * 9 + l[1].split()[10:])] + l[2:]),
        "camera at the origin": camera(12, "0"), "camera far away": camera(12, "1e20"),
        "principal point far outside": camera(15, "1e9"),
        "bounding box inverted": ("scene", lambda l: l[:5] + ["1 -1 1 -1 1 -1"] + l[6:]),
        "camera its own neighbour": ("scene", lambda l: l[:6] + ["0 3 0 0 0"] + l[7:]),
        "no neighbours": ("scene", lambda l: l[:6] + ["0 0", "1 0", "2 0", "3 0", ""]),
        "one camera": ("scene", lambda l: ["1", l[1], l[5], "0 1 0", ""]),
        "repeated-index facets": mesh(verts, ["3 0 0 0"] * 5 + faces),
        "no facets": mesh(verts, []), "empty mesh": mesh([], []), "one facet": mesh(verts, faces[:1]),
        "every facet twice": mesh(verts, faces + faces),
        "an edge of four facets": mesh(verts + ["0 0 2"], faces + [f"3 {a} {b} {nv}"] * 3),
        "unused vertices": mesh(verts + ["0 0 0"] * 10, faces),
        "mesh 1e6 times larger": mesh(moved(1e6), faces), "mesh 1e-6 times smaller": mesh(moved(1e-6), faces),
        "mesh near float range": mesh(moved(1e37), faces), "mesh behind the cameras": mesh(moved(1.0, -100.0), faces),
        "mesh around the cameras": mesh(moved(10.0), faces), "mesh a single point": mesh(moved(0.0), faces),
    }


def fuzz_refine(build, work, cases, damage, failures):
    scene = os.path.join(work, "scene")
    subprocess.run([os.path.join(build, "tools/synth/tessaline_synth"), scene, "--views", "4", "--width", "96",
                    "--height", "72", "--margin", "8"], check=True, capture_output=True)
    os.remove(os.path.join(scene, "truth.ply"))
    for n in range(cases):
        target, edit = random_refine_edit(damage)
        case_dir = os.path.join(work, f"refine_{n}")
        faults, text = refine_case(build, scene, case_dir, edit)
        report(f"refine case {n} (damaged {target})", faults, text, case_dir, failures)
    for n, (name, (which, change)) in enumerate(meaningless_inputs(scene).items()):
        path = "scene.sfm" if which == "scene" else "initial.ply"

        def edit(folder, path=path, change=change):
            rewrite(os.path.join(folder, path), lambda d: "\n".join(change(d.split("\n"))))
        case_dir = os.path.join(work, f"meaningless_{n}")
        faults, text = refine_case(build, scene, case_dir, edit)
        report(f"refine: {name}", faults, text, case_dir, failures)
    return cases + len(meaningless_inputs(scene))


def fuzz_import(build, work, cases, damage, failures):
    if not os.path.isdir(os.path.join(DATA, "colmap")):
        print("import: skipped, ../shared/data/templeSparseRing/colmap is absent")
        return 0
    tools = os.path.join(build, "tools/tessaline_tools/tessaline_tools")
    for n in range(cases):
        binary = damage.rng.random() < 0.5
        case_dir = os.path.join(work, f"import_{n}")
        shutil.rmtree(case_dir, ignore_errors=True)
        model, mesh, out = (os.path.join(case_dir, p) for p in ("model", "mesh.ply", "out"))
        shutil.copytree(os.path.join(DATA, "colmap", "sparse/0" if binary else "sparse_text"), model)
        shutil.copy(os.path.join(DATA, "colmap", "temple_hull_colmap.ply"), mesh)
        target = damage.rng.choice(["cameras", "images", "images", "points3D", "mesh", "mesh"])
        if target == "mesh":
            def change(data):
                end = data.index(b"end_header\n") + 11
                if damage.rng.random() < 0.5:
                    return damage.text(data[:end].decode("latin-1"), header_lines=20).encode("latin-1") + data[end:]
                return damage.binary(data)
            os.chmod(mesh, 0o644)
            rewrite(mesh, change, binary=True)
        else:
            path = os.path.join(model, f"{target}.{'bin' if binary else 'txt'}")
            os.chmod(path, 0o644)
            if binary:
                rewrite(path, damage.binary, binary=True)
            else:
                rewrite(path, damage.text)
        faults, text = run([tools, "import", model, DATA, mesh, out], case_dir, out)
        if "Error" not in text and (not os.path.isdir(out) or sorted(os.listdir(out)) != ["mesh.ply", "scene.sfm"]):
            faults.append("accepted but did not write both files")
        report(f"import case {n} (damaged {'binary' if binary else 'text'} {target})", faults, text, case_dir, failures)
    return cases


def ensure_build(build):
    programs = ["src/driver/tessaline_refine", "tools/tessaline_tools/tessaline_tools", "tools/synth/tessaline_synth"]
    if all(os.path.exists(os.path.join(build, p)) for p in programs):
        return
    flags = f"{SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer"
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DTESSALINE_WITH_CUDA=OFF", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    f"-DCMAKE_CXX_FLAGS={flags}", f"-DCMAKE_EXE_LINKER_FLAGS={SANITIZERS}"], check=True)
    subprocess.run(["cmake", "--build", build, "-j", str(os.cpu_count() or 2), "--target",
                    "tessaline_refine", "tessaline_tools", "tessaline_synth"], check=True)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default=os.path.join(ROOT, "build-asan"))
    ap.add_argument("--work", default=os.path.join(ROOT, "out", "fuzz"))
    ap.add_argument("--cases", type=int, default=500, help="random cases per program")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--only", choices=["refine", "import"])
    args = ap.parse_args()
    build, work = os.path.abspath(args.build), os.path.abspath(args.work)
    ensure_build(build)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    damage, failures, total = Damage(args.seed), [], 0
    if args.only != "import":
        total += fuzz_refine(build, work, args.cases, damage, failures)
    if args.only != "refine":
        total += fuzz_import(build, work, args.cases, damage, failures)
    print(f"{total} runs: {OUTCOMES['refused']} refused their input, {OUTCOMES['completed']} completed, "
          f"{len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
