"""Shared inputs of the package's tests: the temple photographs of
shared/data and a small scene made from them."""

import os
from pathlib import Path

import numpy as np
import pytest

# Imported here, not skipped: a package that did not build fails the run.
import tessaline

REPO = Path(__file__).resolve().parents[2]
TEMPLE = Path(os.path.abspath(REPO / ".." / "shared" / "data" / "templeSparseRing"))


def pytest_addoption(parser):
    parser.addoption("--refine-tool", default=None, help="path of a tessaline_refine build to compare with")


@pytest.fixture(scope="session")
def refine_tool(request):
    path = request.config.getoption("--refine-tool")
    if not path or not os.access(path, os.X_OK):
        pytest.skip("no tessaline_refine given (--refine-tool PATH)")
    return os.path.abspath(path)


@pytest.fixture(scope="session")
def temple_dir():
    if not (TEMPLE / "temple.sfm").is_file():
        pytest.skip(f"the temple data is not at {TEMPLE}")
    return TEMPLE


@pytest.fixture(scope="session")
def temple_scene(temple_dir):
    return tessaline.Scene.load(temple_dir / "temple.sfm", image_root=temple_dir)


@pytest.fixture(scope="session")
def temple_mesh(temple_dir):
    return tessaline.Mesh.load(temple_dir / "temple_hull.ply")


@pytest.fixture(scope="session")
def small_scene(temple_scene):
    """The temple at a quarter of its size (160 x 120): quick to refine."""
    K = temple_scene.K
    K[:, :2, :] *= 0.25
    images = [temple_scene.image(i)[::4, ::4] for i in range(len(temple_scene))]
    return tessaline.Scene(K, temple_scene.R, temple_scene.t, images, temple_scene.neighbours)


def triangle_mesh():
    vertices = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1]], dtype=np.float32)
    facets = np.array([[0, 1, 2], [0, 3, 1]], dtype=np.int32)
    return vertices, facets


def built_program(relative):
    """A program of the CMake build in build/, or a skip when it is not built."""
    path = REPO / "build" / relative
    if not os.access(path, os.X_OK):
        pytest.skip(f"{path} is not built (cmake --build build --target {path.name})")
    return path


@pytest.fixture(scope="session")
def synth_tool():
    return built_program("tools/synth/tessaline_synth")


@pytest.fixture(scope="session")
def front_end():
    return built_program("tools/tessaline/tessaline")
