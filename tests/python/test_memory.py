"""estimate_memory: the figures of the front end's estimate, per level and
at the peak, for the refinement refine would run."""

import re
import subprocess

import pytest

import tessaline


def test_levels_run_coarsest_first_and_the_peak_is_their_largest(temple_scene, temple_mesh):
    estimate = tessaline.estimate_memory(temple_scene, temple_mesh, device="cpu", threads=2)
    assert [level.level for level in estimate.levels] == [2, 1, 0]
    facets = [level.facets for level in estimate.levels]
    assert facets == sorted(facets) and facets[0] >= temple_mesh.facets.shape[0]
    assert all(level.host_bytes > 0 and level.device_bytes == 0 for level in estimate.levels)
    assert estimate.peak_host_bytes == max(level.host_bytes for level in estimate.levels)
    assert estimate.peak_device_bytes == 0


def test_finer_levels_and_more_threads_need_more(temple_scene, temple_mesh):
    """Each thread of the CPU backend works on a camera pair of its own."""
    coarse = tessaline.estimate_memory(temple_scene, temple_mesh, finest_level=2, device="cpu", threads=1)
    fine = tessaline.estimate_memory(temple_scene, temple_mesh, finest_level=0, device="cpu", threads=1)
    wide = tessaline.estimate_memory(temple_scene, temple_mesh, finest_level=0, device="cpu", threads=8)
    assert len(coarse.levels) < len(fine.levels) and coarse.peak_host_bytes < fine.peak_host_bytes
    assert wide.peak_host_bytes > fine.peak_host_bytes


def test_figures_are_those_the_front_end_prints(front_end, temple_dir, temple_scene, temple_mesh, tmp_path):
    """Host bytes count what each process holds already, the same at every
    level: the growth from level to level compares across processes (to the
    printed MiB), the facets compare exactly."""
    run = subprocess.run([front_end, "refine", "temple.sfm", "temple_hull.ply", str(tmp_path / "out.ply"),
                          "--dry-run", "--device", "cpu", "--threads", "2"],
                         cwd=temple_dir, capture_output=True, text=True)
    assert run.returncode == 0, run.stdout + run.stderr
    printed = [tuple(map(int, row)) for row in re.findall(r"level (\d) (\d+) \((\d+) facets\)", run.stdout)]
    estimate = tessaline.estimate_memory(temple_scene, temple_mesh, device="cpu", threads=2)
    assert [(level, facets) for level, _, facets in printed] == [(l.level, l.facets) for l in estimate.levels]
    for (_, mib, _), level in zip(printed, estimate.levels):
        growth = (level.host_bytes - estimate.levels[0].host_bytes) / 2**20
        assert abs(growth - (mib - printed[0][1])) <= 1


@pytest.mark.parametrize(
    "arguments, error",
    [
        ({"finest_level": 3}, "Level of Details should be 0, 1 or 2."),
        ({"preset": "none"}, "there is no preset 'none'"),
        ({"device": "gpu"}, "unknown device 'gpu'"),
        ({"threads": 0}, "threads must be a whole number"),
    ],
)
def test_bad_arguments_are_refused_as_refine_refuses_them(small_scene, temple_mesh, arguments, error):
    with pytest.raises(ValueError, match=re.escape(error)):
        tessaline.estimate_memory(small_scene, temple_mesh, **arguments)
