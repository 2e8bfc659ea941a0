"""Refines a triangle mesh against calibrated photographs.

The refinement runs the same library code as the ``tessaline_refine``
command line: with ``preset="reference"`` it gives the vertices that the
command line gives on the same inputs.

    import tessaline
    scene = tessaline.Scene.load("temple.sfm")
    mesh = tessaline.Mesh.load("temple_hull.ply")
    refined = tessaline.refine(scene, mesh, preset="reference")
    refined.save("temple_refined.ply")

Bad input raises ValueError with the message the command line prints for
it; a device that fails raises DeviceError (MemoryError when memory ran out).
Ctrl-C stops a refinement after the iteration that is running.
"""

from __future__ import annotations

import os
from dataclasses import dataclass
from typing import Any, Callable, Optional, Sequence

import numpy as np

from . import _core
from ._core import DeviceError

__all__ = [
    "DeviceError",
    "LevelMemory",
    "MemoryEstimate",
    "Mesh",
    "Scene",
    "cuda_available",
    "default_preset",
    "estimate_memory",
    "preset_names",
    "refine",
]

ProgressCallback = Callable[[int, int, int], Any]


def preset_names() -> list[str]:
    """The names ``refine`` takes as ``preset``."""
    return list(_core.preset_names())


def default_preset() -> str:
    """The preset ``refine`` runs when none is named."""
    return _core.default_preset()


def cuda_available() -> bool:
    """True when this build has the CUDA backend and a CUDA device answers."""
    return _core.cuda_available()


def _fspath(path: "os.PathLike[str] | str") -> str:
    return os.fspath(path)


def _rows_of_three(values: Any, name: str, dtype: Any) -> np.ndarray:
    array = np.asarray(values)
    if array.ndim != 2 or array.shape[1] != 3:
        raise ValueError(f"{name} must have shape (n, 3), not {array.shape}")
    if dtype == np.int64 and array.size and not np.issubdtype(array.dtype, np.integer):
        raise ValueError(f"{name} must hold integers, not {array.dtype}")
    return np.ascontiguousarray(array, dtype=dtype)


class Mesh:
    """A triangle mesh: float32 vertices (n, 3) and int32 facets (m, 3).

    ``vertices`` and ``facets`` are read-only views of the mesh's own memory
    (no copy); a mesh does not change once made.
    """

    __slots__ = ("_mesh",)

    def __init__(self, vertices: Any, facets: Any) -> None:
        """Builds a mesh from vertices (n, 3) and facets (m, 3).

        Vertices are converted to float32; facets must be integers naming
        vertices (ValueError otherwise).
        """
        self._mesh = _core.Mesh.from_arrays(
            _rows_of_three(vertices, "vertices", np.float32), _rows_of_three(facets, "facets", np.int64)
        )

    @classmethod
    def _wrap(cls, core_mesh: _core.Mesh) -> "Mesh":
        mesh = cls.__new__(cls)
        mesh._mesh = core_mesh
        return mesh

    @classmethod
    def load(cls, path: "os.PathLike[str] | str") -> "Mesh":
        """Reads a PLY (ASCII or binary, any properties, polygons split into
        triangle fans) or Wavefront OBJ file. ValueError when it cannot."""
        return cls._wrap(_core.Mesh.load(_fspath(path)))

    def save(self, path: "os.PathLike[str] | str") -> None:
        """Writes the mesh in the format of the name's extension, as
        ``tessaline refine`` writes its output: .ply (binary, float32
        coordinates), .obj or .glb (binary glTF 2.0).

        The file appears whole or not at all. ValueError for another
        extension, OSError when the file cannot be written.
        """
        self._mesh.save(_fspath(path))

    @property
    def vertices(self) -> np.ndarray:
        """(n, 3) float32, read-only view."""
        return self._mesh.vertices

    @property
    def facets(self) -> np.ndarray:
        """(m, 3) int32, read-only view."""
        return self._mesh.facets

    def __repr__(self) -> str:
        return f"Mesh({self._mesh.vertex_count} vertices, {self._mesh.facet_count} facets)"

    # Conversions; each imports its package only when called.
    @classmethod
    def from_open3d(cls, mesh: Any) -> "Mesh":
        """From an ``open3d.geometry.TriangleMesh``."""
        return cls(np.asarray(mesh.vertices), np.asarray(mesh.triangles))

    def to_open3d(self) -> Any:
        """To an ``open3d.geometry.TriangleMesh``."""
        import open3d

        return open3d.geometry.TriangleMesh(
            open3d.utility.Vector3dVector(self.vertices.astype(np.float64)),
            open3d.utility.Vector3iVector(np.array(self.facets)),
        )

    @classmethod
    def from_trimesh(cls, mesh: Any) -> "Mesh":
        """From a ``trimesh.Trimesh``."""
        return cls(np.asarray(mesh.vertices), np.asarray(mesh.faces))

    def to_trimesh(self) -> Any:
        """To a ``trimesh.Trimesh`` (not processed: vertices stay as they are)."""
        import trimesh

        return trimesh.Trimesh(vertices=self.vertices.copy(), faces=self.facets.copy(), process=False)


class Scene:
    """Calibrated photographs: per camera K, R, t (world to camera,
    x_cam = R X + t, pixel centres at integer coordinates), one 8-bit grey
    photograph, and a list of neighbour cameras (the first 6 are compared)."""

    __slots__ = ("_scene",)

    def __init__(
        self,
        K: Any,
        R: Any,
        t: Any,
        images: Sequence[Any],
        neighbours: Sequence[Sequence[int]],
    ) -> None:
        """Builds a scene from K (n, 3, 3), R (n, 3, 3), t (n, 3), n images
        (2-D uint8 arrays of one size) and n neighbour lists. The arrays are
        copied. ValueError for inconsistent input."""
        K, R = (np.ascontiguousarray(np.asarray(a, dtype=np.float64)) for a in (K, R))
        t = np.ascontiguousarray(np.asarray(t, dtype=np.float64))
        for name, array, tail in (("K", K, (3, 3)), ("R", R, (3, 3)), ("t", t, (3,))):
            if array.ndim != len(tail) + 1 or array.shape[1:] != tail:
                raise ValueError(f"{name} must have shape (n, {', '.join(map(str, tail))}), not {array.shape}")
        self._scene = _core.Scene.from_arrays(
            K, R, t, [_grey_image(image, i) for i, image in enumerate(images)], [list(map(int, n)) for n in neighbours]
        )

    @classmethod
    def _wrap(cls, core_scene: _core.Scene) -> "Scene":
        scene = cls.__new__(cls)
        scene._scene = core_scene
        return scene

    @classmethod
    def load(cls, path: "os.PathLike[str] | str", image_root: "os.PathLike[str] | str | None" = None) -> "Scene":
        """Reads the refiner's scene file and its photographs (as grey).

        Image paths in the file are taken relative to ``image_root``, or to
        the working directory when it is None, as ``tessaline_refine`` does.
        ValueError with the command line's message when the file or a
        photograph cannot be read."""
        root = "" if image_root is None else _fspath(image_root)
        return cls._wrap(_core.Scene.load(_fspath(path), root))

    @classmethod
    def from_colmap(
        cls, model_dir: "os.PathLike[str] | str", image_dir: "os.PathLike[str] | str", neighbours: int = 8
    ) -> "Scene":
        """Imports a COLMAP sparse model (text or binary) with its
        photographs, as ``tessaline_tools import`` does: cameras ordered by
        image name, up to ``neighbours`` neighbours each, ranked by shared
        points; photographs of SIMPLE_RADIAL, RADIAL, OPENCV and FULL_OPENCV
        cameras undistorted into pinhole ones. ValueError when it cannot,
        and for a model far from the origin (which the command line's
        ``tessaline refine --colmap`` moves near it and back)."""
        if neighbours < 1:
            raise ValueError("neighbours must be at least 1")
        return cls._wrap(_core.Scene.from_colmap(_fspath(model_dir), _fspath(image_dir), int(neighbours)))

    @classmethod
    def from_pycolmap(
        cls, reconstruction: Any, image_dir: "os.PathLike[str] | str", neighbours: int = 8
    ) -> "Scene":
        """From a ``pycolmap.Reconstruction``: written to a temporary folder
        in COLMAP's text format, then imported as ``from_colmap`` does."""
        import tempfile

        with tempfile.TemporaryDirectory(prefix="tessaline-") as folder:
            reconstruction.write_text(folder)
            return cls.from_colmap(folder, image_dir, neighbours)

    @property
    def camera_count(self) -> int:
        return self._scene.camera_count

    @property
    def image_size(self) -> tuple[int, int]:
        """(width, height) of the photographs."""
        return tuple(self._scene.image_size)

    @property
    def image_paths(self) -> list[str]:
        return list(self._scene.image_paths)

    @property
    def neighbours(self) -> list[list[int]]:
        return [list(n) for n in self._scene.neighbours]

    @property
    def bounding_box(self) -> tuple[float, ...]:
        """Lower x, y, z then upper x, y, z, as the scene file gives it
        (zeros for a scene built from arrays); the refinement only reports it."""
        return tuple(self._scene.bounding_box)

    @property
    def K(self) -> np.ndarray:
        """(n, 3, 3) float64, a copy."""
        return self._scene.K

    @property
    def R(self) -> np.ndarray:
        """(n, 3, 3) float64, a copy."""
        return self._scene.R

    @property
    def t(self) -> np.ndarray:
        """(n, 3) float64, a copy."""
        return self._scene.t

    def image(self, index: int) -> np.ndarray:
        """The grey photograph of camera ``index``, a read-only view."""
        return self._scene.image(index)

    def __len__(self) -> int:
        return self._scene.camera_count

    def __repr__(self) -> str:
        width, height = self.image_size
        return f"Scene({self.camera_count} cameras, {width}x{height})"


def _grey_image(image: Any, index: int) -> np.ndarray:
    array = np.asarray(image)
    if array.dtype != np.uint8 or array.ndim != 2:
        raise ValueError(f"image {index} must be a 2-D uint8 array, not {array.ndim}-D {array.dtype}")
    return np.ascontiguousarray(array)


def _device_name(device: str) -> str:
    if not isinstance(device, str):
        raise ValueError(f"device must be a string (auto, cpu, cuda or cuda:N), not {device!r}")
    return device


def refine(
    scene: Scene,
    mesh: Mesh,
    finest_level: int = 0,
    preset: Optional[str] = None,
    device: str = "auto",
    progress: Optional[ProgressCallback] = None,
    threads: Optional[int] = None,
) -> Mesh:
    """Refines ``mesh`` against ``scene`` and returns the refined mesh (the
    input mesh is left as it was).

    finest_level: 0, 1 or 2, the finest image level refined (0: the
        photographs' size; 2: a quarter), as the command line's N.
    preset: a name from ``preset_names()``; None runs ``default_preset()``.
        ``"reference"`` is the command line's schedule.
    device: "auto" (a CUDA device when there is one, else the CPU), "cpu",
        "cuda" or "cuda:N" (DeviceError when there is none).
    progress: called as ``progress(level, iteration, iterations)`` after
        every iteration, with the Python lock held; an exception it raises
        stops the refinement and is raised here.
    threads: threads of the CPU backend; None uses every core.

    The result does not depend on the device or the thread count. Raises
    ValueError for bad input, DeviceError or MemoryError when the device
    fails, KeyboardInterrupt on Ctrl-C (after the running iteration).
    """
    if not isinstance(scene, Scene) or not isinstance(mesh, Mesh):
        raise ValueError("refine takes a tessaline.Scene and a tessaline.Mesh")
    if progress is not None and not callable(progress):
        raise ValueError("progress must be callable or None")
    if threads is not None and (int(threads) != threads or not 1 <= threads <= 4096):
        raise ValueError(f"threads must be a whole number from 1 to 4096, not {threads!r}")
    name = default_preset() if preset is None else str(preset)
    core_mesh = _core.refine(
        scene._scene, mesh._mesh, int(finest_level), name, _device_name(device), progress, int(threads or 0)
    )
    return Mesh._wrap(core_mesh)


@dataclass(frozen=True)
class LevelMemory:
    """What one level of a refinement needs: the facets after its
    subdivision, host bytes (the kernels' memory included on the CPU
    backend) and device bytes (zero on the CPU backend)."""

    level: int
    facets: int
    host_bytes: int
    device_bytes: int


@dataclass(frozen=True)
class MemoryEstimate:
    levels: list[LevelMemory]  # coarsest first
    peak_host_bytes: int
    peak_device_bytes: int


def estimate_memory(
    scene: Scene,
    mesh: Mesh,
    finest_level: int = 0,
    preset: Optional[str] = None,
    device: str = "auto",
    threads: Optional[int] = None,
) -> MemoryEstimate:
    """What ``refine`` with these arguments would need in memory, per level
    and at its peak, on the host and on the device: the estimate that
    ``tessaline refine`` prints before it runs, for the photographs' sizes
    in ``scene``.

    The levels are those whose facets get divided, coarsest first; the
    peaks are the largest of their figures. Host bytes count what this
    process holds already. ``device="auto"`` estimates for the device
    ``refine`` would pick. Raises what ``refine`` raises for the same
    arguments, without refining.
    """
    if not isinstance(scene, Scene) or not isinstance(mesh, Mesh):
        raise ValueError("estimate_memory takes a tessaline.Scene and a tessaline.Mesh")
    if threads is not None and (int(threads) != threads or not 1 <= threads <= 4096):
        raise ValueError(f"threads must be a whole number from 1 to 4096, not {threads!r}")
    name = default_preset() if preset is None else str(preset)
    levels, peak_host, peak_device = _core.estimate_memory(
        scene._scene, mesh._mesh, int(finest_level), name, _device_name(device), int(threads or 0)
    )
    return MemoryEstimate([LevelMemory(*level) for level in levels], peak_host, peak_device)
