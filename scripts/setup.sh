#!/usr/bin/env bash
# Installs what the build needs from Debian's packages and builds the project
# (Release, into build/). Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(build-essential cmake pkg-config libopencv-dev libgtest-dev libcli11-dev libcgal-dev libtbb-dev libtinygltf-dev
          clang-14 libclang-rt-14-dev llvm-14 libopenmpi-dev openmpi-bin python3-venv python3-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# TESSALINE_WARNINGS_AS_ERRORS=ON (as CI sets it) makes every warning an error.
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DTESSALINE_WARNINGS_AS_ERRORS=${TESSALINE_WARNINGS_AS_ERRORS:-OFF}
cmake --build build -j"$(nproc)"
./scripts/python_tools.sh
