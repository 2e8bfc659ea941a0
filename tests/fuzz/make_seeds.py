#!/usr/bin/env python3
"""Makes the fuzz targets' seed inputs, tests/fuzz/seeds/<target>/, from real
files and from a small generated scene:

    tests/fuzz/make_seeds.py [--data DIR] [--synth PROGRAM] [--out DIR]

--data is the temple's folder (default ../shared/data/templeSparseRing),
--synth the scene generator (default build/tools/synth/tessaline_synth).

Every seed is small (a few KB), so that the fuzzers run fast: meshes are cut
to their first facets and the vertices these use, the COLMAP model to three
images, their first keypoints and the points seen only there (keypoint
indices renumbered). The cut files keep the originals' layouts: ASCII PLY,
binary little-endian PLY with double coordinates and normals, the model as
COLMAP's text and binary files. Made from the cut temple hull as well: a
big-endian float PLY with int corner counts, and an OBJ. The seeds are
committed; run this again only to change them.
"""
import argparse
import os
import shutil
import struct
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
COLMAP_SEPARATOR = b"\n@@@\n"  # as tests/fuzz/ColmapInput.h splits an input
KEEP_VERTICES = 120
KEEP_IMAGES = 3
KEEP_POINTS = 30
KEEP_UNSEEN_KEYPOINTS = 4


# ------------------------------------------------------------------ meshes

def read_ascii_ply(path):
    """Vertices (x, y, z) and triangles of an ASCII PLY of x, y, z and one index list."""
    with open(path) as f:
        header, body = f.read().split("end_header", 1)
    header, words = header.split(), body.split()
    num_v = int(header[header.index("vertex") + 1])
    num_f = int(header[header.index("face") + 1])
    vertices = [tuple(float(w) for w in words[3 * i:3 * i + 3]) for i in range(num_v)]
    faces, at = [], 3 * num_v
    for _ in range(num_f):
        n = int(words[at])
        faces.append(tuple(int(w) for w in words[at + 1:at + 1 + n]))
        at += 1 + n
    return vertices, faces


def read_binary_hull(path):
    """The binary little-endian hull: double x, y, z, nx, ny, nz; uchar count, uint indices."""
    data = open(path, "rb").read()
    head, body = data.split(b"end_header\n", 1)
    words = head.split()
    num_v = int(words[words.index(b"vertex") + 1])
    num_f = int(words[words.index(b"face") + 1])
    vertices = [struct.unpack_from("<6d", body, 48 * i) for i in range(num_v)]
    faces, at = [], 48 * num_v
    for _ in range(num_f):
        n = body[at]
        faces.append(struct.unpack_from("<%dI" % n, body, at + 1))
        at += 1 + 4 * n
    return vertices, faces


def cut_mesh(vertices, faces, keep=KEEP_VERTICES):
    """The first facets up to `keep` vertices, with those vertices in file order, renumbered."""
    used, count = set(), 0
    while count < len(faces) and len(used | set(faces[count])) <= keep:
        used |= set(faces[count])
        count += 1
    kept = sorted(used)
    number = {old: new for new, old in enumerate(kept)}
    return [vertices[i] for i in kept], [tuple(number[i] for i in f) for f in faces[:count]]


def ascii_ply(vertices, faces):
    lines = ["ply", "format ascii 1.0", "element vertex %d" % len(vertices), "property float x",
             "property float y", "property float z", "element face %d" % len(faces),
             "property list uchar int vertex_indices", "end_header"]
    lines += ["%g %g %g" % v[:3] for v in vertices]
    lines += ["%d %s" % (len(f), " ".join(str(i) for i in f)) for f in faces]
    return ("\n".join(lines) + "\n").encode()


def binary_hull_ply(vertices, faces):
    header = ("ply\nformat binary_little_endian 1.0\ncomment cut from the temple hull\n"
              "element vertex %d\nproperty double x\nproperty double y\nproperty double z\n"
              "property double nx\nproperty double ny\nproperty double nz\nelement face %d\n"
              "property list uchar uint vertex_indices\nend_header\n" % (len(vertices), len(faces)))
    body = b"".join(struct.pack("<6d", *v) for v in vertices)
    body += b"".join(struct.pack("<B%dI" % len(f), len(f), *f) for f in faces)
    return header.encode() + body


def big_endian_float_ply(vertices, faces):
    """Float coordinates, and int corner counts as some writers give them."""
    header = ("ply\nformat binary_big_endian 1.0\nelement vertex %d\nproperty float x\nproperty float y\n"
              "property float z\nelement face %d\nproperty list int int vertex_indices\nend_header\n"
              % (len(vertices), len(faces)))
    body = b"".join(struct.pack(">3f", *v[:3]) for v in vertices)
    body += b"".join(struct.pack(">i%di" % len(f), len(f), *f) for f in faces)
    return header.encode() + body


def obj(vertices, faces):
    lines = ["# cut from the temple hull", "o hull"] + ["v %g %g %g" % v[:3] for v in vertices]
    lines += ["f " + " ".join(str(i + 1) for i in f) for f in faces]
    return ("\n".join(lines) + "\n").encode()


# ------------------------------------------------------------- COLMAP model

def read_colmap_text(folder):
    def data_lines(name):
        with open(os.path.join(folder, name)) as f:
            return [l.rstrip("\n") for l in f if not l.startswith("#")]
    cameras = [l.split() for l in data_lines("cameras.txt")]
    images, lines = [], data_lines("images.txt")
    for head, keypoints in zip(lines[0::2], lines[1::2]):
        w = head.split()
        k = keypoints.split()
        images.append({"id": int(w[0]), "qt": [float(x) for x in w[1:8]], "camera": int(w[8]), "name": w[9],
                       "keypoints": [(float(k[i]), float(k[i + 1]), int(k[i + 2])) for i in range(0, len(k), 3)]})
    points = []
    for l in data_lines("points3D.txt"):
        w = l.split()
        points.append({"id": int(w[0]), "xyz": [float(x) for x in w[1:4]], "rgb": [int(x) for x in w[4:7]],
                       "error": float(w[7]), "track": [(int(w[i]), int(w[i + 1])) for i in range(8, len(w), 2)]})
    return cameras, images, points


class Bytes:
    """Little-endian reads from bytes."""

    def __init__(self, data):
        self.data, self.at = data, 0

    def take(self, fmt):
        values = struct.unpack_from("<" + fmt, self.data, self.at)
        self.at += struct.calcsize("<" + fmt)
        return values

    def text(self):
        end = self.data.index(b"\0", self.at)
        s, self.at = self.data[self.at:end].decode(), end + 1
        return s


def read_colmap_binary(folder):
    def file(name):
        return Bytes(open(os.path.join(folder, name), "rb").read())
    params_of_model = {0: 3, 1: 4}
    c = file("cameras.bin")
    cameras = []
    for _ in range(c.take("Q")[0]):
        cam_id, model, width, height = c.take("iiQQ")
        cameras.append((cam_id, model, width, height, c.take("%dd" % params_of_model[model])))
    b = file("images.bin")
    images = []
    for _ in range(b.take("Q")[0]):
        image_id, = b.take("I")
        qt, camera, name = b.take("7d"), b.take("I")[0], b.text()
        keypoints = [b.take("ddq") for _ in range(b.take("Q")[0])]
        images.append({"id": image_id, "qt": list(qt), "camera": camera, "name": name, "keypoints": keypoints})
    p = file("points3D.bin")
    points = []
    for _ in range(p.take("Q")[0]):
        point_id, = p.take("Q")
        xyz, rgb, error = p.take("3d"), p.take("3B"), p.take("d")[0]
        track = [p.take("II") for _ in range(p.take("Q")[0])]
        points.append({"id": point_id, "xyz": list(xyz), "rgb": list(rgb), "error": error, "track": track})
    return cameras, images, points


def cut_model(images, points):
    """Three images seen together, the points seen only by them, and their keypoints renumbered."""
    first = next(p for p in points if len({i for i, _ in p["track"]}) >= KEEP_IMAGES)
    kept_ids = sorted({i for i, _ in first["track"]})[:KEEP_IMAGES]
    kept_points = [p for p in points if all(i in kept_ids for i, _ in p["track"])][:KEEP_POINTS]
    point_ids = {p["id"] for p in kept_points}
    cut_images, renumber = [], {}
    for image in (im for im in images if im["id"] in kept_ids):
        keypoints, unseen = [], 0
        for old, (x, y, point) in enumerate(image["keypoints"]):
            if point in point_ids or (point == -1 and unseen < KEEP_UNSEEN_KEYPOINTS):
                unseen += point == -1
                renumber[(image["id"], old)] = len(keypoints)
                keypoints.append((x, y, point if point in point_ids else -1))
        cut_images.append(dict(image, keypoints=keypoints))
    for p in kept_points:
        p["track"] = [(i, renumber[(i, k)]) for i, k in p["track"]]
    return cut_images, kept_points


def colmap_text(cameras, images, points):
    cams = "# Camera list with one line of data per camera:\n" + "".join(" ".join(c) + "\n" for c in cameras)
    imgs = "# Image list with two lines of data per image:\n"
    for im in images:
        imgs += " ".join([str(im["id"])] + [repr(v) for v in im["qt"]] + [str(im["camera"]), im["name"]]) + "\n"
        imgs += " ".join("%r %r %d" % k for k in im["keypoints"]) + "\n"
    pts = "# 3D point list with one line of data per point:\n"
    for p in points:
        words = [str(p["id"])] + [repr(v) for v in p["xyz"]] + [str(v) for v in p["rgb"]] + [repr(p["error"])]
        pts += " ".join(words + ["%d %d" % t for t in p["track"]]) + "\n"
    return [cams.encode(), imgs.encode(), pts.encode()]


def colmap_binary(cameras, images, points):
    cams = struct.pack("<Q", len(cameras)) + b"".join(
        struct.pack("<iiQQ%dd" % len(c[4]), c[0], c[1], c[2], c[3], *c[4]) for c in cameras)
    imgs = struct.pack("<Q", len(images))
    for im in images:
        imgs += struct.pack("<I7dI", im["id"], *im["qt"], im["camera"]) + im["name"].encode() + b"\0"
        imgs += struct.pack("<Q", len(im["keypoints"])) + b"".join(struct.pack("<ddq", *k) for k in im["keypoints"])
    pts = struct.pack("<Q", len(points))
    for p in points:
        pts += struct.pack("<Q3d3BdQ", p["id"], *p["xyz"], *p["rgb"], p["error"], len(p["track"]))
        pts += b"".join(struct.pack("<II", *t) for t in p["track"])
    return [cams, imgs, pts]


def joined_model(files):
    for f in files:
        if COLMAP_SEPARATOR in f:
            sys.exit("a model file holds the fuzz input's separator; cut it differently")
    return COLMAP_SEPARATOR.join(files)


# ------------------------------------------------------------------- main

def synth_scene(program, folder):
    subprocess.run([program, folder, "--views", "4", "--width", "96", "--height", "72"], check=True,
                   stdout=subprocess.DEVNULL)
    return folder


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--data", default=os.path.join(ROOT, "..", "shared", "data", "templeSparseRing"))
    parser.add_argument("--synth", default=os.path.join(ROOT, "build", "tools", "synth", "tessaline_synth"))
    parser.add_argument("--out", default=os.path.join(ROOT, "tests", "fuzz", "seeds"))
    args = parser.parse_args()
    data, colmap = args.data, os.path.join(args.data, "colmap")

    hull = cut_mesh(*read_ascii_ply(os.path.join(data, "temple_hull.ply")))
    binary_hull = cut_mesh(*read_binary_hull(os.path.join(colmap, "temple_hull_colmap.ply")))
    temple = open(os.path.join(data, "temple.sfm"), "rb").read()
    with tempfile.TemporaryDirectory() as scratch:
        synth = synth_scene(args.synth, scratch)
        synth_sfm = open(os.path.join(synth, "scene.sfm"), "rb").read()
        synth_initial = cut_mesh(*read_ascii_ply(os.path.join(synth, "initial.ply")))

    text_cameras, text_images, text_points = read_colmap_text(os.path.join(colmap, "sparse_text"))
    bin_cameras, bin_images, bin_points = read_colmap_binary(os.path.join(colmap, "sparse", "0"))
    seeds = {
        "sfm_scene": {"temple.sfm": temple, "synth_4_views.sfm": synth_sfm},
        "refiner_ply": {"temple_hull_cut.ply": ascii_ply(*hull), "synth_initial_cut.ply": ascii_ply(*synth_initial)},
        "mesh_reader": {"temple_hull_cut.ply": ascii_ply(*hull),
                        "temple_hull_colmap_cut.ply": binary_hull_ply(*binary_hull),
                        "temple_hull_cut_big_endian.ply": big_endian_float_ply(*hull),
                        "temple_hull_cut.obj": obj(*hull)},
        "colmap_text": {"temple_cut.txt3": joined_model(colmap_text(text_cameras,
                                                                    *cut_model(text_images, text_points)))},
        "colmap_binary": {"temple_cut.bin3": joined_model(colmap_binary(bin_cameras,
                                                                        *cut_model(bin_images, bin_points)))},
    }
    for target, files in seeds.items():
        folder = os.path.join(args.out, target)
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
        for name, content in files.items():
            with open(os.path.join(folder, name), "wb") as f:
                f.write(content)
            print("%s/%s: %d bytes" % (target, name, len(content)))


if __name__ == "__main__":
    main()
