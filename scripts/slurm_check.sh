#!/usr/bin/env bash
# A one-node SLURM on this machine, to check that the tool runs under a real
# scheduler: installs Debian's slurm-wlm and munge when missing, starts munge,
# the controller and the node daemon on localhost with a configuration of
# its own (in a temporary folder), submits the temple with sbatch as a job of
# 2 tasks started by `srun`, waits for it, and compares its output with the
# plain run byte for byte. Stops the daemons again. Needs root (the daemons
# run as root here). Not part of the test suite: it installs packages and
# starts services.
#
#   scripts/slurm_check.sh [BUILD_DIR] [TEMPLE_DIR] [LEVEL_OF_DETAIL]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
temple=$(cd "${2:-$root/../shared/data/templeSparseRing}" && pwd)
lod=${3:-2}
refine=$build/src/driver/tessaline_refine
[ -x "$refine" ] || { echo "FAIL: $refine is missing (build first)"; exit 1; }
[ "$(id -u)" -eq 0 ] || { echo "FAIL: run as root (the daemons are started here)"; exit 1; }

if ! command -v slurmctld > /dev/null || ! command -v munged > /dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends slurm-wlm munge > /dev/null
fi

work=$(mktemp -d /tmp/tessaline_slurm.XXXXXX)
host=$(hostname -s)
cpus=$(nproc)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  pkill -f "slurmctld -f $work" 2>/dev/null || true
  pkill -f "slurmd -f $work" 2>/dev/null || true
}
trap cleanup EXIT

# munge: a key of its own when the package left none, the daemon as root.
mkdir -p /run/munge /var/log/munge /var/lib/munge
[ -s /etc/munge/munge.key ] || dd if=/dev/urandom of=/etc/munge/munge.key bs=1024 count=1 2> /dev/null
chmod 400 /etc/munge/munge.key
pgrep -x munged > /dev/null || munged --force
munge -n | unmunge > /dev/null || { echo "FAIL: munge does not answer"; exit 1; }

mkdir -p "$work/state" "$work/spool" "$work/log"
cat > "$work/slurm.conf" <<CONF
ClusterName=tessaline
SlurmctldHost=$host
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
SlurmctldLogFile=$work/log/slurmctld.log
SlurmdLogFile=$work/log/slurmd.log
SlurmctldPort=16817
SlurmdPort=16818
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
MpiDefault=pmix
ReturnToService=2
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
NodeName=$host CPUs=$cpus State=UNKNOWN
PartitionName=local Nodes=$host Default=YES MaxTime=INFINITE State=UP OverSubscribe=YES
CONF
export SLURM_CONF=$work/slurm.conf
slurmctld -f "$work/slurm.conf" -i
slurmd -f "$work/slurm.conf"
for _ in $(seq 1 30); do
  sinfo -h -o "%t" 2> /dev/null | grep -q -E "idle|mix" && break
  sleep 1
done
sinfo -h -o "%P %D %t %c" || true

echo "plain run of the temple at level of detail $lod"
# The tool ends a complete run with status 1.
(cd "$temple" && "$refine" temple.sfm temple_hull.ply "$work/plain.ply" "$lod" > "$work/plain.log") || true
[ -s "$work/plain.ply" ] || { echo "FAIL: the plain run wrote nothing"; exit 1; }

cat > "$work/job.sh" <<JOB
#!/usr/bin/env bash
#SBATCH --job-name=tessaline-temple
#SBATCH --ntasks=2
#SBATCH --cpus-per-task=1
#SBATCH --output=$work/job.log
cd "$temple"
srun --mpi=pmix "$refine" temple.sfm temple_hull.ply "$work/slurm.ply" $lod
JOB
job=$(sbatch --parsable "$work/job.sh")
echo "submitted job $job (2 tasks, srun)"
for _ in $(seq 1 600); do
  state=$(squeue -h -j "$job" -o "%T" 2> /dev/null || true)
  [ -z "$state" ] && break
  sleep 1
done
echo "--- what the job printed (rank 0's lines):"
grep -v "mesh optimizing" "$work/job.log" | grep -v "^$" | head -40
if cmp -s "$work/plain.ply" "$work/slurm.ply"; then
  echo "slurm: PASS (the job's mesh equals the plain run's, byte for byte)"
else
  echo "slurm: FAIL (the job's mesh differs from the plain run's, or is missing)"
  tail -20 "$work/log/slurmd.log" || true
  exit 1
fi
