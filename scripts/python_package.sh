#!/usr/bin/env bash
# The Python package: `pip install .` into a fresh virtual environment
# (build/pyvenv), then its tests (tests/python), which compare a refinement
# through Python with the tessaline_refine of build/ (built by test.sh).
# Arguments go to pip, e.g. -Ccmake.define.TESSALINE_WITH_CUDA=OFF for a
# build without the CUDA backend. Fails when the package does not build.
set -euo pipefail
cd "$(dirname "$0")/.."
venv=build/pyvenv
rm -rf "$venv"
python3 -m venv "$venv"
# trimesh is light: its conversions get tested (Open3D and pycolmap only where installed).
"$venv/bin/python" -m pip install -q --disable-pip-version-check numpy pytest trimesh
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-Ccmake.define.CMAKE_CXX_COMPILER_LAUNCHER=ccache -Ccmake.define.CMAKE_C_COMPILER_LAUNCHER=ccache)
fi
"$venv/bin/python" -m pip install -q --disable-pip-version-check "${launcher[@]}" "$@" .
tool=build/src/driver/tessaline_refine
"$venv/bin/python" -m pytest tests/python -q --refine-tool "$tool"
