"""Scene: the scene file, arrays and COLMAP models."""

import shutil
import subprocess

import numpy as np
import pytest

import tessaline


def write_scene(folder, images, neighbour_lines):
    """A scene file of one camera per image (identity pose, f = 100)."""
    lines = [str(len(images))]
    for name in images:
        lines.append(f"{name} 1 0 0 0 1 0 0 0 1 0 0 2 100 100 1.5 1.5")
    lines.append("-1 1 -1 1 -1 1")
    lines += neighbour_lines
    path = folder / "scene.sfm"
    path.write_text("\n".join(lines) + "\n")
    return path


@pytest.fixture
def photo_folder(tmp_path, temple_dir):
    for name in ("templeSR0001.png", "templeSR0002.png"):
        shutil.copy(temple_dir / name, tmp_path / name)
    return tmp_path


class TestSceneFile:
    def test_temple_cameras_are_those_of_the_file(self, temple_scene, temple_dir):
        first = (temple_dir / "temple.sfm").read_text().split()[1:18]
        assert len(temple_scene) == 16 and temple_scene.image_size == (640, 480)
        np.testing.assert_array_equal(temple_scene.R[0].ravel(), [float(x) for x in first[1:10]])
        np.testing.assert_array_equal(temple_scene.t[0], [float(x) for x in first[10:13]])
        fx, fy, cx, cy = (float(x) for x in first[13:17])
        np.testing.assert_array_equal(temple_scene.K[0], [[fx, 0, cx], [0, fy, cy], [0, 0, 1]])
        assert temple_scene.neighbours[0] == [10, 1, 9, 8, 13, 7]

    def test_images_are_found_from_the_working_directory_or_the_root(self, photo_folder, monkeypatch):
        path = write_scene(photo_folder, ["templeSR0001.png", "templeSR0002.png"], ["0 1 1", "1 1 0"])
        by_root = tessaline.Scene.load(path, image_root=photo_folder)
        monkeypatch.chdir(photo_folder)
        by_cwd = tessaline.Scene.load("scene.sfm")
        np.testing.assert_array_equal(by_root.image(1), by_cwd.image(1))
        assert by_root.image(0).dtype == np.uint8 and by_root.image(0).shape == (480, 640)

    @pytest.mark.parametrize(
        "images, neighbours, message",
        [
            (["templeSR0001.png", "missing.png"], ["0 1 1", "1 1 0"], "fail to load missing.png"),
            (["templeSR0001.png", "templeSR0002.png"], ["0 1 2", "1 1 0"],
             "the scene file {path} lists neighbour 2 for camera 0, outside 0..1"),
            (["templeSR0001.png", "templeSR0002.png"], ["0 1 1"], "the scene file {path} ends or is malformed at"),
        ],
    )
    def test_bad_scene_file_gives_the_command_line_message(self, photo_folder, images, neighbours, message):
        path = write_scene(photo_folder, images, neighbours)
        with pytest.raises(ValueError) as raised:
            tessaline.Scene.load(path, image_root=photo_folder)
        assert str(raised.value).startswith(message.format(path=path))

    def test_missing_scene_file(self, tmp_path):
        with pytest.raises(ValueError, match="cannot read"):
            tessaline.Scene.load(tmp_path / "none.sfm")


class TestArrays:
    def arrays(self, n=3, size=(30, 40)):
        K = np.tile(np.array([[50.0, 0, 20], [0, 50, 15], [0, 0, 1]]), (n, 1, 1))
        R = np.tile(np.eye(3), (n, 1, 1))
        t = np.arange(3 * n, dtype=float).reshape(n, 3)
        images = [np.full(size, 10 * i, np.uint8) for i in range(n)]
        neighbours = [[j for j in range(n) if j != i] for i in range(n)]
        return K, R, t, images, neighbours

    def test_round_trip(self):
        K, R, t, images, neighbours = self.arrays()
        scene = tessaline.Scene(K, R, t, images, neighbours)
        np.testing.assert_array_equal(scene.K, K)
        np.testing.assert_array_equal(scene.R, R)
        np.testing.assert_array_equal(scene.t, t)
        np.testing.assert_array_equal(scene.image(2), images[2])
        assert scene.neighbours == neighbours and scene.image_size == (40, 30)

    def test_images_are_copied(self):
        K, R, t, images, neighbours = self.arrays()
        scene = tessaline.Scene(K, R, t, images, neighbours)
        images[0][:] = 255
        assert scene.image(0).max() == 0

    @pytest.mark.parametrize(
        "change, message",
        [
            (lambda a: a[3].__setitem__(1, np.zeros((31, 40), np.uint8)),
             "current version does not support image with different size"),
            (lambda a: a[4].__setitem__(0, [1, 3]), "the scene lists neighbour 3 for camera 0, outside 0..2"),
            (lambda a: a[0].__setitem__((1, 0, 1), 0.5), "K of camera 1 is not"),
            (lambda a: a[3].__setitem__(0, np.zeros((30, 40), np.float32)), "image 0 must be a 2-D uint8 array"),
            (lambda a: a[3].pop(), "the scene has 3 cameras but 2 images"),
        ],
    )
    def test_bad_arrays_are_refused(self, change, message):
        arrays = self.arrays()
        change(arrays)
        with pytest.raises(ValueError, match=f"^{message}"):
            tessaline.Scene(*arrays)


class TestColmap:
    def test_text_and_binary_models_give_the_registered_cameras(self, temple_dir):
        colmap = temple_dir / "colmap"
        binary = tessaline.Scene.from_colmap(colmap / "sparse" / "0", temple_dir)
        text = tessaline.Scene.from_colmap(colmap / "sparse_text", temple_dir, neighbours=6)
        assert len(binary) == len(text) == 13  # three photographs were not registered
        np.testing.assert_allclose(binary.K[0], [[1520.4, 0, 302.32], [0, 1525.9, 246.87], [0, 0, 1]])
        np.testing.assert_allclose(binary.R, text.R, atol=1e-6)
        assert all(len(n) <= 6 for n in text.neighbours)
        assert binary.image_paths[0].endswith("templeSR0001.png")

    def test_model_folder_without_a_model(self, tmp_path, temple_dir):
        with pytest.raises(ValueError):
            tessaline.Scene.from_colmap(tmp_path, temple_dir)

    def test_model_far_from_the_origin_is_refused_with_the_way_to_refine_it(self, temple_dir, tmp_path):
        """The temple's text model moved by (350000, 5600000, 250): points
        X + o, and per image t - R o, R from its quaternion."""
        offset = np.array([350000.0, 5600000.0, 250.0])
        source = temple_dir / "colmap" / "sparse_text"
        shutil.copy(source / "cameras.txt", tmp_path / "cameras.txt")
        points = []
        for line in (source / "points3D.txt").read_text().splitlines():
            f = line.split()
            if f and not line.startswith("#"):
                f[1:4] = [repr(float(v) + o) for v, o in zip(f[1:4], offset.tolist())]
            points.append(" ".join(f))
        (tmp_path / "points3D.txt").write_text("\n".join(points) + "\n")
        images, data = [], [line for line in (source / "images.txt").read_text().splitlines() if not line.startswith("#")]
        for pose, observations in zip(data[0::2], data[1::2]):
            f = pose.split()
            w, x, y, z = map(float, f[1:5])
            R = np.array([[1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)],
                          [2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)],
                          [2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)]])
            f[5:8] = [repr(float(v)) for v in np.array(list(map(float, f[5:8]))) - R @ offset]
            images += [" ".join(f), observations]
        (tmp_path / "images.txt").write_text("\n".join(images) + "\n")
        with pytest.raises(ValueError, match="^the model lies far from the origin .*tessaline refine --colmap"):
            tessaline.Scene.from_colmap(tmp_path, temple_dir)

    def test_pycolmap_reconstruction(self, temple_dir):
        pycolmap = pytest.importorskip("pycolmap", reason="pycolmap is not installed")
        reconstruction = pycolmap.Reconstruction(str(temple_dir / "colmap" / "sparse" / "0"))
        scene = tessaline.Scene.from_pycolmap(reconstruction, temple_dir)
        direct = tessaline.Scene.from_colmap(temple_dir / "colmap" / "sparse" / "0", temple_dir)
        np.testing.assert_allclose(scene.R, direct.R, atol=1e-9)
        assert scene.neighbours == direct.neighbours

    def test_distorted_model_is_undistorted_by_the_import(self, synth_tool, tmp_path):
        """A scene photographed through an OPENCV lens, imported, looks more
        like the same scene photographed through a pinhole than its
        photographs read as pinhole ones do (the undistorted camera's focal
        length differs a little, so the images are not equal). The object
        fills the frame, where the distortion is strongest."""
        size = ["--views", "3", "--width", "160", "--height", "120", "--truth-level", "4", "--margin", "2"]
        for options, folder in ((["--lens", "OPENCV"], "lens"), (["--colmap"], "pinhole")):
            subprocess.run([synth_tool, *size, *options, tmp_path / folder], check=True, stdout=subprocess.DEVNULL)
        shutil.copytree(tmp_path / "lens" / "colmap", tmp_path / "as_taken")
        cameras = tmp_path / "as_taken" / "cameras.txt"
        lines = [line.split() for line in cameras.read_text().splitlines() if not line.startswith("#")]
        cameras.write_text("".join(" ".join(f[:1] + ["PINHOLE"] + f[2:8]) + "\n" for f in lines))
        pinhole = tessaline.Scene.from_colmap(tmp_path / "pinhole" / "colmap", tmp_path / "pinhole")
        lens = tessaline.Scene.from_colmap(tmp_path / "lens" / "colmap", tmp_path / "lens")
        as_taken = tessaline.Scene.from_colmap(tmp_path / "as_taken", tmp_path / "lens")

        def difference(scene):
            return np.mean([np.abs(scene.image(i).astype(int) - pinhole.image(i)).mean() for i in range(3)])

        assert len(lens) == 3 and lens.image_size == pinhole.image_size
        assert not np.allclose(lens.K, as_taken.K)
        assert difference(lens) < 0.75 * difference(as_taken)
