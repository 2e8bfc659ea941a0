#!/usr/bin/env bash
# The Python tools the checks use (lizard, from PyPI), in a virtual
# environment of the build folder: build/pytools. Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."
venv=build/pytools
if [ ! -x "$venv/bin/lizard" ]; then
  python3 -m venv "$venv"
  "$venv/bin/python" -m pip install -q --disable-pip-version-check lizard
fi
