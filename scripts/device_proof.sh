#!/usr/bin/env bash
# On a machine with a CUDA device: unpacks the bundle that
# scripts/device_bundle.sh made (.device-bundle/bundle.tar.xz) and checks the
# CUDA backend in stages, each writing its log under $OUT (out/device when
# OUT is unset):
#   tests     the test binaries; the kernel tests run on the CPU and on CUDA,
#             the parity tests compare the two
#   sanitize  compute-sanitizer memcheck, racecheck and initcheck on the tool's
#             whole run over a small generated scene
#   compare   that scene refined on each backend, the two meshes compared
#   bench     scripts/benchmark.py --profile (scenes from --scenes)
#
#   scripts/device_proof.sh tests sanitize compare bench [--scenes small,medium,large]
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
out=${OUT:-$root/out/device}
mkdir -p "$out"
unpacked=/tmp/tessaline-bundle
scenes=small,medium,large
stages=()
while [ $# -gt 0 ]; do
  case "$1" in
    --scenes) scenes=$2; shift 2 ;;
    tests|sanitize|compare|bench) stages+=("$1"); shift ;;
    *) echo "Error: unknown stage '$1' (tests, sanitize, compare, bench)" >&2; exit 2 ;;
  esac
done
[ ${#stages[@]} -gt 0 ] || stages=(tests sanitize compare bench)

if [ ! -x "$unpacked/build/src/driver/tessaline_refine" ]; then
  if [ ! -f .device-bundle/bundle.tar.xz ]; then
    echo "Error: .device-bundle/bundle.tar.xz not found; make it with scripts/device_bundle.sh" >&2
    exit 1
  fi
  mkdir -p "$unpacked"
  xz -dc .device-bundle/bundle.tar.xz | tar -C "$unpacked" -xf - || exit 1
fi
bin=$unpacked/build
nvidia-smi -L 2>/dev/null | tee "$out/device.txt"

# A small scene with ground truth, made once per machine.
scene() {
  local dir=$unpacked/scene
  if [ ! -f "$dir/scene.sfm" ]; then
    "$bin/tools/synth/tessaline_synth" "$dir" --views 6 --width 192 --height 144 >/dev/null || return 1
  fi
  echo "$dir"
}

# The tool's end-of-run status is 1 after a complete refinement.
refine() {
  (cd "$1" && "${@:3}" "$bin/src/driver/tessaline_refine" scene.sfm initial.ply "$2")
}

status=0
for stage in "${stages[@]}"; do
  echo "=== $stage"
  case "$stage" in
    tests)
      for t in device_tests mesh_tests driver_tests endtoend_tests; do
        "$bin/tests/$t" --gtest_brief=1 >"$out/$t.log" 2>&1 || status=1
        grep -E "^\[  (PASSED|FAILED|SKIPPED) |^\[==========\]" "$out/$t.log" | sed "s/^/$t: /"
      done
      grep -hE "^\[  FAILED  \]" "$out"/*_tests.log | sort -u
      ;;
    sanitize)
      dir=$(scene) || { status=1; continue; }
      for tool in memcheck racecheck initcheck; do
        compute-sanitizer --tool "$tool" --error-exitcode 99 --print-limit 20 \
          "$bin/src/driver/tessaline_refine" "$dir/scene.sfm" "$dir/initial.ply" "$unpacked/sanitized.ply" \
          >"$out/sanitize-$tool.log" 2>&1
        rc=$?
        echo "$tool: exit $rc; $(grep -a "ERROR SUMMARY" "$out/sanitize-$tool.log" | tail -1)"
        [ "$rc" -eq 1 ] || status=1
      done
      ;;
    compare)
      dir=$(scene) || { status=1; continue; }
      refine "$dir" refined-cpu.ply env TESSALINE_BACKEND=cpu >"$out/compare-cpu.log" 2>&1
      refine "$dir" refined-cuda.ply >"$out/compare-cuda.log" 2>&1
      grep -ah "Device backend" "$out/compare-cpu.log" "$out/compare-cuda.log"
      for m in initial refined-cpu refined-cuda; do
        echo "$m against the truth:"
        "$bin/tools/compare/tessaline_compare" "$dir/truth.ply" "$dir/$m.ply" || status=1
      done
      echo "CUDA mesh against the CPU mesh:"
      "$bin/tools/compare/tessaline_compare" "$dir/refined-cpu.ply" "$dir/refined-cuda.ply" || status=1
      ;;
    bench)
      PYTHONUNBUFFERED=1 python3 scripts/benchmark.py --build "$bin" --out "$unpacked/bench" --scenes "$scenes" \
        --profile 2>&1 | tee "$out/bench.log" || status=1
      ;;
  esac
done
exit $status
