"""Mesh: arrays, files and the conversions to other mesh packages."""

import struct

import numpy as np
import pytest

import tessaline
from conftest import triangle_mesh


class TestArrays:
    def test_round_trip_keeps_values_and_types(self):
        vertices, facets = triangle_mesh()
        mesh = tessaline.Mesh(vertices.astype(np.float64), facets.astype(np.int64))
        assert mesh.vertices.dtype == np.float32 and mesh.facets.dtype == np.int32
        np.testing.assert_array_equal(mesh.vertices, vertices)
        np.testing.assert_array_equal(mesh.facets, facets)

    def test_views_share_the_mesh_memory_and_are_read_only(self):
        mesh = tessaline.Mesh(*triangle_mesh())
        first, second = mesh.vertices, mesh.vertices
        assert np.shares_memory(first, second) and np.shares_memory(mesh.facets, mesh.facets)
        with pytest.raises(ValueError):
            first[0, 0] = 1.0
        del mesh  # the view keeps the mesh alive
        assert first[1, 0] == 1.0

    @pytest.mark.parametrize(
        "facets, message",
        [
            ([[0, 1, 4]], "facet 0 of the mesh refers to vertex 4, outside 0..3"),
            ([[0, 1, 2], [-1, 1, 2]], "facet 1 of the mesh refers to vertex -1, outside 0..3"),
            ([[0, 1, 2**40]], f"facet 0 of the mesh refers to vertex {2**40}, outside 0..3"),
        ],
    )
    def test_facet_outside_the_mesh_is_refused(self, facets, message):
        with pytest.raises(ValueError, match=f"^{message}$"):
            tessaline.Mesh(triangle_mesh()[0], facets)

    @pytest.mark.parametrize(
        "vertices, facets",
        [(np.zeros((4, 2)), [[0, 1, 2]]), (np.zeros((4, 3)), [[0, 1, 2, 3]]), (np.zeros((4, 3)), [[0.0, 1.0, 2.0]])],
    )
    def test_bad_shapes_and_types_are_refused(self, vertices, facets):
        with pytest.raises(ValueError):
            tessaline.Mesh(vertices, facets)


class TestFiles:
    @pytest.mark.parametrize("name", ["m.ply", "m.OBJ"])
    def test_ply_and_obj_round_trip_keep_float32_vertices(self, tmp_path, name):
        vertices, facets = triangle_mesh()
        vertices = vertices + np.float32(0.1234567)
        tessaline.Mesh(vertices, facets).save(tmp_path / name)
        back = tessaline.Mesh.load(tmp_path / name)
        np.testing.assert_array_equal(back.vertices, vertices)
        np.testing.assert_array_equal(back.facets, facets)

    def test_ply_is_binary(self, tmp_path):
        tessaline.Mesh(*triangle_mesh()).save(tmp_path / "m.ply")
        assert b"format binary_little_endian 1.0\n" in (tmp_path / "m.ply").read_bytes()

    def test_glb_reads_back_in_trimesh(self, tmp_path):
        trimesh = pytest.importorskip("trimesh", reason="trimesh is not installed")
        vertices, facets = triangle_mesh()
        tessaline.Mesh(vertices + np.float32(0.1234567), facets).save(tmp_path / "m.glb")
        assert (tmp_path / "m.glb").read_bytes()[:4] == b"glTF"
        back = trimesh.load(tmp_path / "m.glb", force="mesh", process=False)
        np.testing.assert_array_equal(np.asarray(back.vertices, dtype=np.float32), vertices + np.float32(0.1234567))
        np.testing.assert_array_equal(back.faces, facets)

    def test_binary_ply_and_obj_read_as_ascii_ply(self, tmp_path):
        vertices, facets = triangle_mesh()
        header = "ply\nformat binary_little_endian 1.0\nelement vertex 4\nproperty double x\nproperty double y\n"
        header += "property double z\nproperty float nx\nelement face 2\nproperty list uchar int vertex_indices\n"
        body = b"".join(struct.pack("<dddf", *v, 0.0) for v in vertices.astype(float))
        body += b"".join(struct.pack("<Biii", 3, *f) for f in facets.tolist())
        (tmp_path / "b.ply").write_bytes((header + "end_header\n").encode() + body)
        obj = "".join(f"v {x} {y} {z}\n" for x, y, z in vertices) + "f 1 2 3\nf 1 4 2\n"
        (tmp_path / "m.obj").write_text(obj)
        for name in ("b.ply", "m.obj"):
            mesh = tessaline.Mesh.load(tmp_path / name)
            np.testing.assert_array_equal(mesh.vertices, vertices)
            np.testing.assert_array_equal(mesh.facets, facets)

    def test_bad_ply_gives_the_command_line_message(self, tmp_path):
        text = "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\nproperty float z\n"
        text += "element face 1\nproperty list uchar int vertex_indices\nend_header\n0 0 0\n1 0 0\n0 1 0\n3 0 1 9\n"
        path = tmp_path / "bad.ply"
        path.write_text(text)
        with pytest.raises(ValueError, match=f"^facet 0 of {path} refers to vertex 9, outside 0..2$"):
            tessaline.Mesh.load(path)
        with pytest.raises(ValueError, match="does not exist"):
            tessaline.Mesh.load(tmp_path / "missing.ply")

    def test_save_refuses_other_formats_and_leaves_no_file(self, tmp_path):
        mesh = tessaline.Mesh(*triangle_mesh())
        with pytest.raises(ValueError, match="the formats written are .ply, .obj or .glb$"):
            mesh.save(tmp_path / "m.stl")
        with pytest.raises(OSError, match="cannot write"):
            mesh.save(tmp_path / "no-folder" / "m.glb")
        assert list(tmp_path.iterdir()) == []


class TestConversions:
    def test_open3d_round_trip(self):
        open3d = pytest.importorskip("open3d", reason="open3d is not installed")
        mesh = tessaline.Mesh(*triangle_mesh())
        converted = mesh.to_open3d()
        assert isinstance(converted, open3d.geometry.TriangleMesh)
        back = tessaline.Mesh.from_open3d(converted)
        np.testing.assert_array_equal(back.vertices, mesh.vertices)
        np.testing.assert_array_equal(back.facets, mesh.facets)

    def test_trimesh_round_trip_keeps_vertex_order(self):
        trimesh = pytest.importorskip("trimesh", reason="trimesh is not installed")
        vertices, facets = triangle_mesh()
        mesh = tessaline.Mesh(np.vstack([vertices, vertices[:1]]), facets)  # an unused duplicate vertex
        converted = mesh.to_trimesh()
        assert isinstance(converted, trimesh.Trimesh)
        back = tessaline.Mesh.from_trimesh(converted)
        np.testing.assert_array_equal(back.vertices, mesh.vertices)
        np.testing.assert_array_equal(back.facets, mesh.facets)
