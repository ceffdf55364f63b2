#!/usr/bin/env bash
# Segments many sequences at once on one machine: one denseseg process per
# sequence, at most JOBS at a time, run by GNU parallel, each with its own log.
#
#   tools/segment_dataset.sh [-j JOBS] FILESTRUCTURE SEQUENCES LOGDIR
#
# SEQUENCES lists one sequence per line, "NAME IMAGE TRACKS" separated by
# blanks (blank lines and lines starting with "#" are skipped).  Each runs as
#
#   denseseg FILESTRUCTURE IMAGE TRACKS -1 NAME  >LOGDIR/NAME.log 2>&1
#
# so IMAGE (any frame of the sequence; its folder is listed by its extension)
# is relative to the filestructure's dataDir, TRACKS to its tracksDir, and the
# results go to <resultDir>/NAME/.  A process writes only into its own result
# folder (temporary files included), so names must be unique.  JOBS defaults
# to the number of cores; give each process fewer threads with
# OMP_NUM_THREADS.  The program is $DENSESEG, or denseseg on the PATH.
# LOGDIR/jobs.tsv is parallel's job log: one line per sequence with its exit
# status.  Exit status: 0 when every sequence succeeded, otherwise the number
# of failed sequences (at most 100; 101 and more are 101).
set -euo pipefail

usage() {
    echo "usage: $0 [-j JOBS] FILESTRUCTURE SEQUENCES LOGDIR" >&2
    exit 2
}
jobs=$(nproc 2>/dev/null || echo 2)
while getopts "j:" option; do
    case $option in
        j) jobs=$OPTARG ;;
        *) usage ;;
    esac
done
shift $((OPTIND - 1))
[ $# = 3 ] || usage
command -v parallel >/dev/null || { echo "$0: GNU parallel is not installed (Debian: parallel)" >&2; exit 2; }

sequences=$(grep -Ev '^[[:space:]]*(#|$)' "$2" || true)
[ -n "$sequences" ] || { echo "$0: $2 lists no sequence" >&2; exit 2; }
# A name becomes a folder and a log file: one plain, unique name per line.
printf '%s\n' "$sequences" | awk -v list="$2" '
    NF != 3 || $1 !~ /^[A-Za-z0-9][A-Za-z0-9._-]*$/ || seen[$1]++ {
        printf "%s: line \"%s\" is not NAME IMAGE TRACKS with a new plain NAME\n", list, $0 > "/dev/stderr"; bad = 1
    }
    END { exit bad }' || exit 2

mkdir -p "$3"
export DATASET_PROGRAM=${DENSESEG:-denseseg} DATASET_CONFIG=$1 DATASET_LOGS=$3
# parallel quotes the fields it substitutes; the variables are expanded by
# the shell of each job.
printf '%s\n' "$sequences" |
    parallel --jobs "$jobs" --colsep '[ \t]+' --joblog "$3/jobs.tsv" \
        '"$DATASET_PROGRAM" "$DATASET_CONFIG" {2} {3} -1 {1} >"$DATASET_LOGS"/{1}.log 2>&1'
