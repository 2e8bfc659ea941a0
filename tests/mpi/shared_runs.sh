#!/usr/bin/env bash
# Runs shared by several MPI processes against the plain run: the same
# output bytes with 1, 2 and 3 processes (a generated scene, and the temple
# at level of detail 2), a photograph that only process 1 holds damaged
# (every process stops with status 0, one line names rank 1, no file), and a
# process killed in mid-run (the others do not wait for it: the job ends
# within a bounded time, without a file).
#
#   shared_runs.sh BUILD_DIR TEMPLE_DIR
set -u
build=$(cd "$1" && pwd)
temple=$2
refine=$build/src/driver/tessaline_refine
synth=$build/tools/synth/tessaline_synth
work=$(mktemp -d /tmp/tessaline_mpi.XXXXXX)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
mpi=(mpirun --oversubscribe)
[ "$(id -u)" -eq 0 ] && mpi+=(--allow-run-as-root)

[ -x "$refine" ] && [ -x "$synth" ] || { echo "FAIL: the tool or the scene generator is missing"; exit 1; }
[ -f "$temple/temple.sfm" ] || { echo "FAIL: the temple is missing: $temple"; exit 1; }
"$synth" "$work/ring" --views 24 --width 128 --height 96 > /dev/null || { echo "FAIL: no scene"; exit 1; }

# same_bytes NAME FOLDER SFM PLY LOD: the plain run, then 1, 2 and 3 processes.
same_bytes() {
  local name=$1 folder=$2 sfm=$3 ply=$4 lod=$5
  (cd "$folder" && "$refine" "$sfm" "$ply" "$work/$name-plain.ply" "$lod" > "$work/$name-plain.log")
  [ -s "$work/$name-plain.ply" ] || { fail "$name: the plain run wrote nothing"; return; }
  for n in 1 2 3; do
    (cd "$folder" && timeout 600 "${mpi[@]}" -n $n "$refine" "$sfm" "$ply" "$work/$name-$n.ply" "$lod" \
        > "$work/$name-$n.log" 2>&1)
    if cmp -s "$work/$name-plain.ply" "$work/$name-$n.ply"; then
      echo "$name: $n processes give the plain run's bytes"
    else
      fail "$name: $n processes differ from the plain run"; tail -5 "$work/$name-$n.log"
    fi
  done
  grep -q "Process split: rank 2" "$work/$name-3.log" || fail "$name: the run of 3 printed no split"
}
same_bytes ring "$work/ring" scene.sfm initial.ply 0
same_bytes temple "$temple" temple.sfm temple_hull.ply 2

# The front end shares its run too: tessaline refine with the quality preset
# (whose levels end when the vertices settle, counted over the processes),
# and with its photographs scaled down, gives the plain run's bytes.
front=$build/tools/tessaline/tessaline
[ -x "$front" ] || fail "the front end is missing: $front"
for options in "--preset quality" "--preset quality --max-image-size 100 --finest-level 1"; do
  name=front-$(echo "$options" | tr -c 'a-z0-9\n' '-')
  "$front" refine "$work/ring/scene.sfm" "$work/ring/initial.ply" "$work/$name-plain.ply" $options -q \
      > "$work/$name-plain.log" 2>&1 || fail "tessaline refine $options: the plain run failed"
  for n in 2 3; do
    timeout 600 "${mpi[@]}" -n $n "$front" refine "$work/ring/scene.sfm" "$work/ring/initial.ply" \
        "$work/$name-$n.ply" $options > "$work/$name-$n.log" 2>&1 || fail "tessaline refine $options: $n processes failed"
    if [ -s "$work/$name-plain.ply" ] && cmp -s "$work/$name-plain.ply" "$work/$name-$n.ply"; then
      echo "tessaline refine $options: $n processes give the plain run's bytes"
    else
      fail "tessaline refine $options: $n processes differ from the plain run"; tail -5 "$work/$name-$n.log"
    fi
  done
  grep -q "Process split: rank 2" "$work/$name-3.log" || fail "tessaline refine $options: no split printed"
done

# Camera 12 of the ring is held by process 1 alone when 3 share the run.
cp -r "$work/ring" "$work/damaged"
echo "not a photograph" > "$work/damaged/view_012.png"
(cd "$work/damaged" && timeout 120 "${mpi[@]}" -n 3 "$refine" scene.sfm initial.ply "$work/damaged.ply" 1 \
    > "$work/damaged.log" 2>&1)
status=$?
[ $status -eq 0 ] || fail "damaged photograph: exit status $status"
grep -q "^Error: rank 1: fail to load view_012.png" "$work/damaged.log" || fail "damaged photograph: no line names rank 1"
[ ! -e "$work/damaged.ply" ] || fail "damaged photograph: a file was written"

# A process killed in mid-run: the job must end soon after, without a file.
(cd "$temple" && timeout 300 "${mpi[@]}" -n 2 "$refine" temple.sfm temple_hull.ply "$work/killed.ply" 0 \
    > "$work/killed.log" 2>&1) &
job=$!
victim=""
for _ in $(seq 1 100); do
  sleep 0.2
  for p in $(pgrep -f "$work/killed.ply"); do
    tr '\0' '\n' < /proc/$p/environ 2>/dev/null | grep -qx "OMPI_COMM_WORLD_RANK=1" && victim=$p
  done
  [ -n "$victim" ] && break
done
if [ -z "$victim" ]; then
  fail "killed process: process 1 never started"
else
  sleep 3
  kill -9 "$victim"
  SECONDS=0
  while kill -0 $job 2>/dev/null && [ $SECONDS -lt 60 ]; do sleep 0.5; done
  if kill -0 $job 2>/dev/null; then
    fail "killed process: the others still run 60 s later"; pkill -9 -f "$work/killed.ply"
  else
    echo "killed process: the job ended ${SECONDS} s after process 1 was killed"
  fi
  [ ! -e "$work/killed.ply" ] || fail "killed process: a file was written"
fi
wait 2>/dev/null

[ $failures -eq 0 ] && echo "shared runs: PASS" || echo "shared runs: $failures failure(s)"
exit $((failures > 0))
