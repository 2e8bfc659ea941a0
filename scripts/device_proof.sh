#!/usr/bin/env bash
# On a machine with a CUDA device: unpacks the bundle that
# scripts/device_bundle.sh made (.device-bundle/bundle.tar.xz) and checks the
# CUDA backend in stages. Each stage writes one log, $OUT/<stage>.log
# (out/device when OUT is unset), and ends with the line "<stage>: PASS" or
# "<stage>: FAIL (<reasons>)"; the script exits 1 if a selected stage failed.
#   tests     the test binaries; the kernel tests run on the CPU and on CUDA,
#             the parity tests compare the two. Fails when a binary is missing,
#             crashes, runs no test, has a failing test, or when device_tests
#             has no CUDA case or skips one.
#   sanitize  compute-sanitizer: memcheck and initcheck on a whole run of the
#             tool over a small generated scene (6 views, 192x144), racecheck
#             on a tiny one (4 views, 96x72) at level 2 alone and on the CUDA
#             and parity cases of device_tests; the four run side by side.
#   compare   the small scene refined on each backend; the two meshes must be
#             byte-identical (distances to the truth and between the meshes
#             are printed as information)
#   temple    the real temple (16 photographs, 640x480, carried in the bundle)
#             refined at level 0 on each backend side by side; the two meshes
#             must be byte-identical
#   bench     scripts/benchmark.py --profile (scenes from --scenes)
#
#   scripts/device_proof.sh tests sanitize compare temple bench [--scenes small,medium,large]
#                           [--sanitize-scene small|tiny]
#
# A run of the tool counts as complete when its exit status is 1 (0 means it
# refused its input or stopped early), its output mesh exists and is not
# empty, and it reports the expected backend. Under compute-sanitizer the log
# must also hold "ERROR SUMMARY: 0 errors", and the sanitizer's own error exit
# status (99) fails the stage. Every run has a time limit (below); running out
# of it fails the stage. The runs of the sanitize stage, and the two of the
# temple stage, go side by side, so each of those stages ends within a
# 10-minute call.
set -uo pipefail
# The CUDA runs must not be sent to the CPU by the caller's environment.
unset TESSALINE_BACKEND
cd "$(dirname "$0")/.." || exit 1
root=$(pwd)
out=${OUT:-$root/out/device}
mkdir -p "$out"
unpacked=/tmp/tessaline-bundle
scenes=small,medium,large,temple
sanitize_scene=small
all_stages="tests sanitize compare temple bench"
stages=()
while [ $# -gt 0 ]; do
  case "$1" in
    --scenes) scenes=${2:?--scenes needs a value}; shift 2 ;;
    --sanitize-scene)
      sanitize_scene=${2:?--sanitize-scene needs a value}; shift 2
      case "$sanitize_scene" in small|tiny) ;; *) echo "Error: --sanitize-scene is small or tiny" >&2; exit 2 ;; esac ;;
    tests|sanitize|compare|temple|bench) stages+=("$1"); shift ;;
    *) echo "Error: unknown argument '$1' (stages: $all_stages)" >&2; exit 2 ;;
  esac
done
[ ${#stages[@]} -gt 0 ] || read -r -a stages <<<"$all_stages"

# Time limits in seconds, per run.
tests_limit=300      # one test binary
whole_limit=480      # memcheck or initcheck over a whole run
race_limit=300       # each racecheck run
compare_limit=300    # one refinement of the small scene
temple_limit=540     # one refinement of the temple at level 0

# Unpacks the bundle when it is not unpacked yet or has changed since.
tarball=.device-bundle/bundle.tar.xz
if [ -f "$tarball" ]; then
  sum=$(cksum <"$tarball")
  if [ "$(cat "$unpacked/.bundle-sum" 2>/dev/null)" != "$sum" ]; then
    rm -rf "$unpacked"
    mkdir -p "$unpacked"
    if ! xz -dc "$tarball" | tar -C "$unpacked" -xf -; then
      echo "Error: could not unpack $tarball" >&2
      exit 1
    fi
    echo "$sum" >"$unpacked/.bundle-sum"
  fi
elif [ ! -x "$unpacked/build/src/driver/tessaline_refine" ]; then
  echo "Error: $tarball not found; make it with scripts/device_bundle.sh" >&2
  exit 1
fi
bin=$unpacked/build
# The end-to-end tests and the benchmark find the temple and the tool where
# the bundle has them, not where the build here put them.
export TESSALINE_TEMPLE_DIR=$unpacked/data/templeSparseRing
export TESSALINE_REFINE=$bin/src/driver/tessaline_refine
refine_bin=$bin/src/driver/tessaline_refine
compare_bin=$bin/tools/compare/tessaline_compare
if command -v nvidia-smi >/dev/null; then
  nvidia-smi -L >"$out/device.txt" 2>&1
else
  echo "nvidia-smi not found" >"$out/device.txt"
fi
cat "$out/device.txt"

sanitizer=$(command -v compute-sanitizer)
if [ -z "$sanitizer" ]; then
  for s in /usr/local/cuda/bin/compute-sanitizer /usr/local/cuda*/compute-sanitizer/compute-sanitizer; do
    if [ -x "$s" ]; then sanitizer=$s; break; fi
  done
fi

log=/dev/null      # the current stage's log
problems=()        # the current stage's failed checks
work=              # the current stage's scratch folder

# say TEXT: prints a line and adds it to the stage's log.
say() { printf '%s\n' "$*" | tee -a "$log"; }

# fail TEXT: records a failed check of the current stage.
fail() {
  problems+=("$*")
  say "  check failed: $*"
}

# append LABEL STATUS FILE: adds a run's output to the stage's log.
append() {
  { printf '\n----- %s (exit status %s)\n' "$1" "$2"; cat "$3"; } >>"$log" 2>/dev/null
}

# start RUNLOG LIMIT DIR COMMAND...: starts COMMAND in the background from DIR
# under a time limit (timeout signals the whole process group, so a program
# under compute-sanitizer goes too), its output into RUNLOG; $! is its id.
start() {
  local runlog=$1 limit=$2 dir=$3
  shift 3
  (cd "$dir" && exec timeout -k 20 "$limit" "$@") >"$runlog" 2>&1 &
}

timed_out() { [ "$1" -eq 124 ] || [ "$1" -eq 137 ]; }

# scene NAME VIEWS WIDTH HEIGHT: prints the folder of a generated scene with
# ground truth, made once per unpacked bundle.
scene() {
  local dir=$unpacked/scenes/$1
  if [ ! -s "$dir/scene.sfm" ] || [ ! -s "$dir/initial.ply" ]; then
    rm -rf "$dir"
    "$bin/tools/synth/tessaline_synth" "$dir" --views "$2" --width "$3" --height "$4" >/dev/null 2>&1 || return 1
  fi
  echo "$dir"
}

# error_summary RUNLOG: the sanitizer's last "ERROR SUMMARY: N errors".
error_summary() { grep -aoE 'ERROR SUMMARY: [0-9]+ errors?' "$1" | tail -n 1; }

# check_refine LABEL STATUS RUNLOG MESH BACKEND LIMIT: the checks that a run of
# the tool went to its end on BACKEND ("CUDA device" or "CPU").
check_refine() {
  local label=$1 rc=$2 runlog=$3 mesh=$4 backend=$5 limit=$6
  if timed_out "$rc"; then
    fail "$label: timed out after $limit s"
    return
  fi
  if [ "$rc" -eq 99 ]; then
    fail "$label: compute-sanitizer found errors (exit status 99; $(error_summary "$runlog"))"
  elif [ "$rc" -ne 1 ]; then
    fail "$label: exit status $rc, expected 1 (the run did not complete)"
  fi
  [ -s "$mesh" ] || fail "$label: no output mesh, or an empty one"
  grep -aq "Device backend: $backend" "$runlog" || fail "$label: did not run on the $backend backend"
}

# check_sanitizer LABEL STATUS RUNLOG: the sanitizer's summary must count 0
# errors (after exit status 99 the errors were reported already).
check_sanitizer() {
  local label=$1 rc=$2 runlog=$3 summary race
  summary=$(error_summary "$runlog")
  race=$(grep -aoE 'RACECHECK SUMMARY: .*' "$runlog" | tail -n 1)
  say "  $label: ${summary:-no ERROR SUMMARY line}${race:+; $race}"
  if grep -aqE 'ERROR SUMMARY: [0-9]*[1-9][0-9]* error' "$runlog"; then
    [ "$rc" -eq 99 ] || fail "$label: $summary"
  elif ! grep -aqE '(^|=+ )ERROR SUMMARY: 0 errors[[:space:]]*$' "$runlog"; then
    fail "$label: no \"ERROR SUMMARY: 0 errors\" line"
  fi
}

# gtest_counts RUNLOG: prints "RAN PASSED SKIPPED" from gtest's closing lines;
# "-" for a count that is missing.
gtest_counts() {
  local ran passed skipped
  ran=$(sed -nE 's/^\[==========\] ([0-9]+) tests? from .* ran\..*/\1/p' "$1" | tail -n 1)
  passed=$(sed -nE 's/^\[  PASSED  \] ([0-9]+) tests?\..*/\1/p' "$1" | tail -n 1)
  skipped=$(sed -nE 's/^\[  SKIPPED \] ([0-9]+) tests?[.,].*/\1/p' "$1" | tail -n 1)
  echo "${ran:--} ${passed:--} ${skipped:-0}"
}

# check_gtest LABEL STATUS RUNLOG LIMIT [strict]: the checks on a test binary's
# run; with "strict" a skipped test fails too (on a CUDA machine the only
# reason to skip a device test is that no device answered).
check_gtest() {
  local label=$1 rc=$2 runlog=$3 limit=$4 strict=${5:-} ran passed skipped failed
  read -r ran passed skipped <<<"$(gtest_counts "$runlog")"
  if [ "$ran" = - ] || [ "$passed" = - ]; then
    say "  $label: no gtest summary"
  else
    failed=$((ran - passed - skipped))
    say "  $label: $ran ran, $passed passed, $failed failed, $skipped skipped"
  fi
  if timed_out "$rc"; then
    fail "$label: timed out after $limit s"
    return
  elif [ "$rc" -eq 99 ]; then
    fail "$label: compute-sanitizer found errors (exit status 99; $(error_summary "$runlog"))"
  elif [ "$rc" -ge 128 ]; then
    fail "$label: crashed (signal $((rc - 128)))"
  elif [ "$rc" -ne 0 ]; then
    fail "$label: exit status $rc"
  fi
  if [ "$ran" = - ] || [ "$passed" = - ]; then
    fail "$label: no gtest summary (the binary stopped before its end)"
    return
  fi
  [ "$ran" -gt 0 ] || fail "$label: no test ran"
  [ "$passed" -gt 0 ] || fail "$label: no test passed"
  [ "$failed" -eq 0 ] || fail "$label: $failed failed ($(grep -aE '^\[  FAILED  \] [A-Za-z]' "$runlog" |
    sed -E 's/^\[  FAILED  \] ([^ ]+).*/\1/' | sort -u | paste -sd, - | sed 's/,/, /g'))"
  if [ "$strict" = strict ] && [ "$skipped" -gt 0 ]; then
    fail "$label: $skipped skipped ($(grep -aE ': Skipped$' -A1 "$runlog" | grep -avE ': Skipped$|^--$' |
      sort -u | paste -sd, - | sed 's/,/, /g'))"
  fi
}

# same_bytes LABEL A B: cmp of two meshes; different bytes fail the stage.
same_bytes() {
  local diff
  if [ ! -s "$2" ] || [ ! -s "$3" ]; then
    say "  $1: not compared (a mesh is missing)"
    return
  fi
  if diff=$(cmp "$2" "$3" 2>&1); then
    say "  $1: identical ($(wc -c <"$2") bytes)"
  else
    say "  $1: ${diff:-differ}"
    fail "$1: the CPU and CUDA meshes differ (${diff##*: })"
  fi
}

# distances LABEL REFERENCE TEST: tessaline_compare's figures, as information.
distances() {
  [ -s "$2" ] && [ -s "$3" ] || return 0
  say "  $1:"
  "$compare_bin" "$2" "$3" 2>&1 | grep -v '^reading ' | sed 's/^/    /' | tee -a "$log"
}

stage_tests() {
  local t rc cuda
  for t in device_tests mesh_tests driver_tests endtoend_tests; do
    if [ ! -x "$bin/tests/$t" ]; then
      fail "$t: missing from the bundle"
      continue
    fi
    start "$work/$t.log" "$tests_limit" "$work" "$bin/tests/$t" --gtest_brief=1
    wait $!
    rc=$?
    append "$t" "$rc" "$work/$t.log"
    if [ "$t" = device_tests ]; then
      check_gtest "$t" "$rc" "$work/$t.log" "$tests_limit" strict
      cuda=$("$bin/tests/$t" --gtest_list_tests 2>/dev/null | grep -c '/CUDA')
      say "  $t: $cuda CUDA cases"
      [ "$cuda" -gt 0 ] || fail "$t: no CUDA case (no CUDA device answered)"
    else
      check_gtest "$t" "$rc" "$work/$t.log" "$tests_limit"
    fi
  done
}

stage_sanitize() {
  local small tiny whole label rc i
  if [ -z "$sanitizer" ]; then
    fail "compute-sanitizer not found"
    return
  fi
  say "  $sanitizer"
  tiny=$(scene tiny 4 96 72) || { fail "could not generate the tiny scene"; return; }
  if [ "$sanitize_scene" = small ]; then
    small=$(scene small 6 192 144) || { fail "could not generate the small scene"; return; }
    whole=$small
  else
    whole=$tiny
  fi
  local -a opts=(--error-exitcode 99 --print-limit 20)
  local -a labels=("memcheck, whole run, $sanitize_scene scene" "initcheck, whole run, $sanitize_scene scene"
                   "racecheck, level 2, tiny scene" "racecheck, device_tests CUDA and parity cases")
  local -a pids=()
  start "$work/memcheck.log" "$whole_limit" "$whole" "$sanitizer" --tool memcheck "${opts[@]}" \
    "$refine_bin" scene.sfm initial.ply "$work/memcheck.ply" 0
  pids+=($!)
  start "$work/initcheck.log" "$whole_limit" "$whole" "$sanitizer" --tool initcheck "${opts[@]}" \
    "$refine_bin" scene.sfm initial.ply "$work/initcheck.ply" 0
  pids+=($!)
  # Level 2 alone: the 4th argument is also the device index, so on a machine
  # with fewer devices the tool warns and takes device 0.
  start "$work/racecheck.log" "$race_limit" "$tiny" "$sanitizer" --tool racecheck "${opts[@]}" \
    "$refine_bin" scene.sfm initial.ply "$work/racecheck.ply" 2
  pids+=($!)
  start "$work/racecheck-tests.log" "$race_limit" "$work" "$sanitizer" --tool racecheck "${opts[@]}" \
    "$bin/tests/device_tests" --gtest_brief=1 '--gtest_filter=*CUDA*:*Parity*'
  pids+=($!)
  local -a runs=(memcheck initcheck racecheck racecheck-tests)
  local -a limits=("$whole_limit" "$whole_limit" "$race_limit" "$race_limit")
  for i in 0 1 2 3; do
    wait "${pids[$i]}"
    rc=$?
    label=${labels[$i]}
    append "$label" "$rc" "$work/${runs[$i]}.log"
    if [ "$i" -lt 3 ]; then
      check_refine "$label" "$rc" "$work/${runs[$i]}.log" "$work/${runs[$i]}.ply" "CUDA device" "${limits[$i]}"
    else
      check_gtest "$label" "$rc" "$work/${runs[$i]}.log" "${limits[$i]}" strict
    fi
    timed_out "$rc" || check_sanitizer "$label" "$rc" "$work/${runs[$i]}.log"
  done
}

# refine_both DIR SFM PLY LEVEL LIMIT: refines a scene on the CPU and on CUDA
# side by side into $work/refined-cpu.ply and $work/refined-cuda.ply.
refine_both() {
  local dir=$1 sfm=$2 ply=$3 level=$4 limit=$5 cpu cuda rc
  start "$work/cpu.log" "$limit" "$dir" env TESSALINE_BACKEND=cpu "$refine_bin" "$sfm" "$ply" "$work/refined-cpu.ply" "$level"
  cpu=$!
  start "$work/cuda.log" "$limit" "$dir" "$refine_bin" "$sfm" "$ply" "$work/refined-cuda.ply" "$level"
  cuda=$!
  wait "$cpu"
  rc=$?
  append "CPU backend" "$rc" "$work/cpu.log"
  check_refine "CPU backend" "$rc" "$work/cpu.log" "$work/refined-cpu.ply" CPU "$limit"
  wait "$cuda"
  rc=$?
  append "CUDA backend" "$rc" "$work/cuda.log"
  check_refine "CUDA backend" "$rc" "$work/cuda.log" "$work/refined-cuda.ply" "CUDA device" "$limit"
  local t
  t=$(grep -ah 'running time' "$work/cpu.log" | tail -n 1)
  [ -z "$t" ] || say "  CPU: $t"
  t=$(grep -ah 'running time' "$work/cuda.log" | tail -n 1)
  [ -z "$t" ] || say "  CUDA: $t"
}

stage_compare() {
  local dir m
  dir=$(scene small 6 192 144) || { fail "could not generate the small scene"; return; }
  refine_both "$dir" scene.sfm initial.ply 0 "$compare_limit"
  same_bytes "small scene, CUDA mesh against the CPU mesh" "$work/refined-cpu.ply" "$work/refined-cuda.ply"
  for m in "$dir/initial.ply" "$work/refined-cpu.ply" "$work/refined-cuda.ply"; do
    distances "$(basename "$m" .ply) against the truth (information)" "$dir/truth.ply" "$m"
  done
  distances "CUDA mesh against the CPU mesh (information)" "$work/refined-cpu.ply" "$work/refined-cuda.ply"
}

stage_temple() {
  local dir=$unpacked/data/templeSparseRing
  if [ ! -s "$dir/temple.sfm" ] || [ ! -s "$dir/temple_hull.ply" ]; then
    fail "the temple is not in the bundle ($dir); remake it with scripts/device_bundle.sh"
    return
  fi
  refine_both "$dir" temple.sfm temple_hull.ply 0 "$temple_limit"
  same_bytes "temple, CUDA mesh against the CPU mesh" "$work/refined-cpu.ply" "$work/refined-cuda.ply"
  distances "CUDA mesh against the CPU mesh (information)" "$work/refined-cpu.ply" "$work/refined-cuda.ply"
}

stage_bench() {
  PYTHONUNBUFFERED=1 python3 scripts/benchmark.py --build "$bin" --out "$unpacked/bench" --scenes "$scenes" \
    --profile 2>&1 | tee -a "$log"
  local rc=$?
  [ "$rc" -eq 0 ] || fail "benchmark.py: exit status $rc"
  grep -aq "Device backend: CUDA device" "$log" || fail "the benchmark did not run on CUDA"
}

status=0
results=()
for stage in "${stages[@]}"; do
  log=$out/$stage.log
  : >"$log"
  work=$unpacked/work/$stage
  rm -rf "$work"
  mkdir -p "$work"
  problems=()
  say "=== $stage"
  case "$stage" in
    tests) stage_tests ;;
    sanitize) stage_sanitize ;;
    compare) stage_compare ;;
    temple) stage_temple ;;
    bench) stage_bench ;;
  esac
  if [ ${#problems[@]} -eq 0 ]; then
    line="$stage: PASS"
  else
    reasons=$(printf '%s; ' "${problems[@]}")
    line="$stage: FAIL (${reasons%; })"
    status=1
  fi
  say "$line"
  results+=("$line")
done
log=/dev/null
echo "=== summary"
printf '%s\n' "${results[@]}"
exit $status
