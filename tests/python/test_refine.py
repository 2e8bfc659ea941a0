"""refine: the same vertices as the command line, progress, interruption
and refusals."""

import _thread
import shutil
import subprocess
import threading
import time

import numpy as np
import pytest

import tessaline

# The iterations of levels 2, 1 and 0 in the reference schedule.
REFERENCE_ITERATIONS = {2: 100, 1: 25, 0: 10}


def six_digit_rows(mesh):
    """The vertices as the command line's ASCII PLY writes them."""
    return [" ".join(f"{float(c):g}" for c in vertex) for vertex in mesh.vertices]


def test_reference_preset_gives_the_command_line_mesh(refine_tool, temple_dir, temple_scene, temple_mesh, tmp_path):
    """Level 2 alone (the command line's N = 2) keeps the test short. The
    command line writes six significant digits: the meshes agree when the
    refined vertices print as its file holds them and every facet is equal."""
    tool_output = tmp_path / "tool.ply"
    run = subprocess.run([refine_tool, "temple.sfm", "temple_hull.ply", str(tool_output), "2"], cwd=temple_dir,
                         stdout=subprocess.DEVNULL)
    assert run.returncode == 1  # the command line's status after a complete run
    refined = tessaline.refine(temple_scene, temple_mesh, finest_level=2, preset="reference", device="cpu")
    tool_mesh = tessaline.Mesh.load(tool_output)
    assert six_digit_rows(refined) == six_digit_rows(tool_mesh)
    np.testing.assert_array_equal(refined.facets, tool_mesh.facets)
    assert not np.array_equal(refined.vertices, temple_mesh.vertices)


def test_progress_sees_every_iteration_and_threads_change_no_bit(small_scene, temple_mesh):
    seen = []
    one = tessaline.refine(small_scene, temple_mesh, preset="reference", device="cpu", threads=1,
                           progress=lambda *call: seen.append(call))
    expected = [(level, i, n) for level, n in REFERENCE_ITERATIONS.items() for i in range(1, n + 1)]
    assert seen == expected
    two = tessaline.refine(small_scene, temple_mesh, preset="reference", device="cpu", threads=2)
    assert one.vertices.tobytes() == two.vertices.tobytes()
    np.testing.assert_array_equal(one.facets, two.facets)


class Stop(Exception):
    pass


def test_progress_exception_stops_the_run_and_leaves_the_mesh(small_scene, temple_mesh, capfd):
    """The library's lines are held back; what the callback prints is not."""
    before = temple_mesh.vertices.copy()
    calls = []

    def progress(level, iteration, iterations):
        calls.append(iteration)
        print(f"callback {iteration}")
        if iteration == 3:
            raise Stop()

    with pytest.raises(Stop):
        tessaline.refine(small_scene, temple_mesh, finest_level=2, device="cpu", progress=progress)
    assert calls == [1, 2, 3]
    np.testing.assert_array_equal(temple_mesh.vertices, before)
    assert capfd.readouterr().out == "callback 1\ncallback 2\ncallback 3\n"


def test_ctrl_c_stops_between_iterations(small_scene, temple_mesh):
    """The signal arrives while the library runs without the Python lock
    (the callback has long returned); the next iteration's check raises
    KeyboardInterrupt."""
    started, calls = threading.Event(), []

    def progress(level, iteration, iterations):
        calls.append(iteration)
        started.set()

    def interrupt():
        if started.wait(60):
            time.sleep(0.05)
            _thread.interrupt_main()

    interrupter = threading.Thread(target=interrupt)
    interrupter.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            tessaline.refine(small_scene, temple_mesh, finest_level=2, device="cpu", progress=progress)
    finally:
        interrupter.join()
    assert 1 <= len(calls) < REFERENCE_ITERATIONS[2]


@pytest.mark.parametrize(
    "arguments, error, message",
    [
        ({"finest_level": 3}, ValueError, "Level of Details should be 0, 1 or 2."),
        ({"preset": "fastest"}, ValueError, "there is no preset 'fastest'; the presets are reference, quality"),
        ({"device": "gpu"}, ValueError, "unknown device 'gpu'"),
        ({"threads": 0}, ValueError, "threads must be a whole number from 1 to 4096"),
        ({"progress": 5}, ValueError, "progress must be callable"),
    ],
)
def test_bad_arguments_are_refused(small_scene, temple_mesh, arguments, error, message):
    with pytest.raises(error, match=f"^{message}"):
        tessaline.refine(small_scene, temple_mesh, **arguments)


def test_cuda_without_a_device_is_a_device_error(small_scene, temple_mesh):
    if tessaline.cuda_available():
        pytest.skip("a CUDA device answers here")
    with pytest.raises(tessaline.DeviceError, match="no CUDA device"):
        tessaline.refine(small_scene, temple_mesh, device="cuda")


def test_images_of_different_sizes_from_a_scene_file(tmp_path, temple_dir, temple_mesh):
    shutil.copy(temple_dir / "templeSR0001.png", tmp_path / "a.png")
    (tmp_path / "b.pgm").write_bytes(b"P5 4 4 255\n" + bytes(16))
    pose = "1 0 0 0 1 0 0 0 1 0 0 2 100 100 1.5 1.5"
    (tmp_path / "s.sfm").write_text(f"2\na.png {pose}\nb.pgm {pose}\n-1 1 -1 1 -1 1\n0 1 1\n1 1 0\n")
    scene = tessaline.Scene.load(tmp_path / "s.sfm", image_root=tmp_path)
    with pytest.raises(ValueError, match="^current version does not support image with different size$"):
        tessaline.refine(scene, temple_mesh)
