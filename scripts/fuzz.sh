#!/usr/bin/env bash
# Fuzzes the readers with coverage guidance (libFuzzer, clang):
#
#   scripts/fuzz.sh [--seconds N] [--target NAME] [--coverage]
#
# Builds the fuzz targets alone into build-fuzz/ (clang, CPU only, address
# and undefined-behaviour sanitizers) and runs each for N seconds (default
# 60), one after the other: sfm_scene, refiner_ply, mesh_reader, colmap_text,
# colmap_binary, or only NAME. Each starts from its seeds and regression
# inputs under tests/fuzz and its dictionary, and keeps what it finds in
# build-fuzz/corpus/NAME for the next run. A declared count that makes a
# reader allocate much more than its input counts as a crash: no single
# allocation may reach 32 MB and the process may not grow past 512 MB. A
# crash, a leak, a time-out, a memory-limit hit or a target that did not run
# fails the target; its input goes to build-fuzz/artifacts/NAME/ and its log
# to build-fuzz/logs/NAME.log. Exit status 1 when a target failed.
#
# --coverage builds with source-based coverage into build-fuzz-coverage/
# instead, replays each target's corpus, seeds and regressions once, and
# prints llvm-cov's report of the reader's source files.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
only=""
coverage=0
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds=${2:?--seconds needs a number}; shift 2 ;;
    --target) only=${2:?--target needs a name}; shift 2 ;;
    --coverage) coverage=1; shift ;;
    -h|--help) sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "Error: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done
[[ "$seconds" =~ ^[1-9][0-9]*$ ]] || { echo "Error: --seconds must be a positive whole number" >&2; exit 2; }

all_targets=(sfm_scene refiner_ply mesh_reader colmap_text colmap_binary)
targets=("${all_targets[@]}")
if [ -n "$only" ]; then
  [[ " ${all_targets[*]} " == *" $only "* ]] || { echo "Error: no target $only (${all_targets[*]})" >&2; exit 2; }
  targets=("$only")
fi

# clang-14 as Debian installs it, or the default clang.
find_tool() {
  for name in "$1-14" "$1"; do
    command -v "$name" >/dev/null && { command -v "$name"; return 0; }
  done
  echo "Error: $1 not found; scripts/setup.sh installs clang-14 and llvm-14" >&2
  return 1
}

build_targets() {  # build folder, instrumentation
  local dir=$1 instrument=$2 cc cxx
  cc=$(find_tool clang) && cxx=$(find_tool clang++) || exit 1
  if [ ! -f "$dir/CMakeCache.txt" ]; then
    mkdir -p "$dir"
    cmake -S . -B "$dir" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DTESSALINE_WITH_CUDA=OFF -DTESSALINE_BUILD_TESTS=OFF -DTESSALINE_FUZZ=ON \
      -DTESSALINE_FUZZ_INSTRUMENT="$instrument" >"$dir/configure.log" 2>&1 ||
      { cat "$dir/configure.log"; exit 1; }
  fi
  nice -n 10 cmake --build "$dir" -j"$(nproc)" --target "${targets[@]/#/fuzz_}"
}

# The inputs a target starts from: its kept corpus, seeds and regressions.
input_folders() {
  echo "build-fuzz/corpus/$1 tests/fuzz/seeds/$1 tests/fuzz/regressions/$1"
}

fuzz_one() {  # target; prints one PASS or FAIL line, returns 1 on FAIL
  local t=$1 log=build-fuzz/logs/$1.log status=0
  mkdir -p "build-fuzz/corpus/$t" "build-fuzz/artifacts/$t" build-fuzz/logs
  ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=32 UBSAN_OPTIONS=print_stacktrace=1 \
    nice -n 10 "build-fuzz/tests/fuzz/fuzz_$t" $(input_folders "$t") -dict="tests/fuzz/dict/$t.dict" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=512 -malloc_limit_mb=32 \
    -artifact_prefix="build-fuzz/artifacts/$t/" -print_final_stats=1 >"$log" 2>&1 || status=$?
  local runs cov
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  cov=$(grep -o 'DONE *cov: [0-9]* ft: [0-9]* corp: [0-9]*' "$log" | tail -n 1 | sed 's/DONE *//')
  if [ "$status" -ne 0 ] || [ -z "$runs" ] || [ "$runs" -eq 0 ]; then
    echo "$t: FAIL (exit status $status, ${runs:-no} runs; log $log)"
    grep -E 'ERROR|SUMMARY|broken promise|Test unit written' "$log" | head -n 8 || true
    return 1
  fi
  echo "$t: PASS ($runs runs in ${seconds} s, $cov)"
}

coverage_report() {
  local dir=build-fuzz-coverage profdata llvm_cov
  profdata=$(find_tool llvm-profdata) && llvm_cov=$(find_tool llvm-cov) || exit 1
  build_targets "$dir" coverage
  rm -rf "$dir/profiles" && mkdir -p "$dir/profiles"
  local t
  for t in "${targets[@]}"; do
    mkdir -p "build-fuzz/corpus/$t"
    LLVM_PROFILE_FILE="$dir/profiles/$t.profraw" "$dir/tests/fuzz/fuzz_$t" -runs=0 $(input_folders "$t") \
      >"$dir/profiles/$t.log" 2>&1 || { echo "$t: the corpus replay failed ($dir/profiles/$t.log)"; exit 1; }
    "$profdata" merge -sparse "$dir/profiles/$t.profraw" -o "$dir/profiles/$t.profdata"
    echo "== $t"
    "$llvm_cov" report "$dir/tests/fuzz/fuzz_$t" -instr-profile="$dir/profiles/$t.profdata" \
      $(reader_sources "$t")
  done
}

reader_sources() {
  case "$1" in
    sfm_scene) echo src/scene/sfmScene.cpp ;;
    refiner_ply) echo src/scene/plyIO.cpp ;;
    mesh_reader) echo tools/tessaline_tools/MeshReader.cpp ;;
    colmap_*) echo tools/tessaline_tools/ColmapModel.cpp ;;
  esac
}

if [ "$coverage" -eq 1 ]; then
  coverage_report
  exit 0
fi

build_targets build-fuzz sanitizers
symbolizer=$(command -v llvm-symbolizer-14 || command -v llvm-symbolizer || true)
[ -n "$symbolizer" ] && export ASAN_SYMBOLIZER_PATH=$symbolizer
failed=0
for t in "${targets[@]}"; do
  fuzz_one "$t" || failed=1
done
exit "$failed"
