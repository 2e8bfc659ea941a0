#!/usr/bin/env bash
# Generates a small synthetic scene with known ground truth, refines its
# initial mesh with the tool, and prints accuracy and completeness before and
# after. Everything goes to out/sample/ (not tracked).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bin=$root/build
out=$root/out/sample
rm -rf "$out"
mkdir -p "$out"

"$bin/tools/synth/tessaline_synth" "$out"
(cd "$out" && "$bin/src/driver/tessaline_refine" scene.sfm initial.ply refined.ply)
echo
echo "Initial mesh against the ground truth:"
"$bin/tools/compare/tessaline_compare" "$out/truth.ply" "$out/initial.ply"
echo
echo "Refined mesh against the ground truth:"
"$bin/tools/compare/tessaline_compare" "$out/truth.ply" "$out/refined.ply"
