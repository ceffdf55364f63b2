#!/usr/bin/env bash
# A Slurm job array that segments many sequences on a cluster: array task i
# runs the i-th sequence of the list (counting from 1; blank lines and lines
# starting with "#" are skipped).  The list is the one tools/segment_dataset.sh
# takes, "NAME IMAGE TRACKS" per line, and each task runs
#
#   denseseg FILESTRUCTURE IMAGE TRACKS -1 NAME  >LOGDIR/NAME.log 2>&1
#
# Submit with one task per sequence, at most 20 running at once:
#
#   n=$(grep -cEv '^[[:space:]]*(#|$)' sequences.txt)
#   sbatch --array=1-"$n"%20 tools/slurm_segment_dataset.sh filestructure sequences.txt logs
#
# Paths are taken from the folder sbatch was called in.  The program is
# $DENSESEG, or denseseg on the PATH.  Add the partition, time and GPU requests
# your cluster needs (for the cuda backend, e.g. --gres=gpu:1).
#SBATCH --job-name=denseseg
#SBATCH --cpus-per-task=4
#SBATCH --output=slurm-%A_%a.out
set -euo pipefail

[ $# = 3 ] || { echo "usage: sbatch --array=1-N $0 FILESTRUCTURE SEQUENCES LOGDIR" >&2; exit 2; }
: "${SLURM_ARRAY_TASK_ID:?run as a Slurm job array (sbatch --array=1-N)}"
line=$(grep -Ev '^[[:space:]]*(#|$)' "$2" | sed -n "${SLURM_ARRAY_TASK_ID}p")
[ -n "$line" ] || { echo "$2 has no sequence $SLURM_ARRAY_TASK_ID" >&2; exit 2; }
read -r name image tracks rest <<<"$line"
[ -n "$tracks" ] && [ -z "$rest" ] || { echo "$2: line \"$line\" is not NAME IMAGE TRACKS" >&2; exit 2; }

export OMP_NUM_THREADS=${OMP_NUM_THREADS:-${SLURM_CPUS_PER_TASK:-1}}
mkdir -p "$3"
exec "${DENSESEG:-denseseg}" "$1" "$image" "$tracks" -1 "$name" >"$3/$name.log" 2>&1
