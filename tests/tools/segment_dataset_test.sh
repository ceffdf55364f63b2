#!/usr/bin/env bash
# Runs tools/segment_dataset.sh on three small generated sequences and a
# broken one, and checks that every result is there, is what a run of the
# sequence on its own gives, shows the tracks' colours, and that nothing was
# written outside the result folders.
#   segment_dataset_test.sh DENSESEG SOURCE_DIR
set -euo pipefail
denseseg=$1
script=$2/tools/segment_dataset.sh
command -v parallel >/dev/null || { echo "GNU parallel is not installed: skipped"; exit 77; }
work=$(mktemp -d "${TMPDIR:-/tmp}/segment-dataset-test-XXXXXX")
trap '[ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
cd "$work"
export OMP_WAIT_POLICY=passive OMP_NUM_THREADS=1

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# A 16 x 12 frame, red left of column 8 and blue from it.
frame() {
    local row="" x y
    for x in $(seq 0 15); do
        if [ "$x" -lt 8 ]; then row+='\310\050\050'; else row+='\050\050\310'; fi
    done
    printf 'P6\n16 12\n255\n'
    for y in $(seq 0 11); do printf "%b" "$row"; done
}

# Ten points of label $1 in column $2 over two frames.
track() {
    printf '%s 10\n' "$1"
    for t in 0 1; do for y in 2 4 6 8 10; do printf '%s.5 %s.5 %s\n' "$2" "$y" "$t"; done; done
}

# Two frames; label $1 marks the left half and label $2 the right.
tracks() {
    printf '2 2\n'
    track "$1" 2
    track "$2" 13
}

# The sequences differ by their labels.
declare -A labels=([a]="3 8" [b]="8 3" [c]="0 5")
for s in a b c; do
    mkdir -p "data/$s"
    for f in 0 1; do frame >"data/$s/f$f.ppm"; done
    # shellcheck disable=SC2086
    tracks ${labels[$s]} >"data/$s/tracks.dat"
done
printf 's dataDir data\ns tracksDir data\ns resultDir results\nf lambda 5\ni maxiter 100\ni writeLabels 1\n' >cfg
printf '# three sequences and one without frames\n\na a/f0.ppm a/tracks.dat\nb\tb/f1.ppm  b/tracks.dat\nc c/f0.ppm c/tracks.dat\nbroken nothing/f0.ppm a/tracks.dat\n' >list
before=$(find data -type f | sort)

status=0
DENSESEG=$denseseg "$script" -j 3 cfg list logs >out.txt 2>&1 || status=$?
[ "$status" = 1 ] || fail "exit status $status, expected 1 (one failed sequence): $(cat out.txt)"
grep -q "no image matches" logs/broken.log || fail "broken.log: $(cat logs/broken.log)"
[ "$(awk 'NR > 1 && $7 != 0' logs/jobs.tsv | wc -l)" = 1 ] || fail "job log: $(cat logs/jobs.tsv)"

# Byte for byte what each sequence gives when run alone.
sed 's/resultDir results/resultDir alone/' cfg >cfg-alone
for s in a b c; do
    [ "$(ls results/$s | tr '\n' ' ')" = "f0_dense.ppm f0_labels.png f0_overlay.ppm f1_dense.ppm f1_labels.png f1_overlay.ppm tracks.dat " ] ||
        fail "results/$s holds: $(ls -A results/$s)"
    grep -q "write track file: results/$s/tracks.dat" "logs/$s.log" || fail "logs/$s.log: $(cat logs/$s.log)"
    "$denseseg" cfg-alone "$s/f0.ppm" "$s/tracks.dat" -1 "$s" >/dev/null
    for file in "results/$s"/*; do cmp "$file" "alone/$s/${file##*/}" || fail "$file differs from a run on its own"; done
done

# Corner pixels show the palette colours of the tracks' labels: 3 is
# (0, 180, 0), 8 (255, 130, 0), 0 (255, 10, 10), 5 (0, 255, 255).
pixel() { od -An -tu1 -j $((15 + 3 * $2)) -N3 "$1" | xargs; }
declare -A colour=([3]="0 180 0" [8]="255 130 0" [0]="255 10 10" [5]="0 255 255")
for s in a b c; do
    read -r left right <<<"${labels[$s]}"
    for f in 0 1; do
        dense=results/$s/f${f}_dense.ppm
        [ "$(head -c 15 "$dense")" = "$(printf 'P6 \n16 12 \n255\n')" ] || fail "$dense header"
        [ "$(pixel "$dense" 0)" = "${colour[$left]}" ] || fail "$dense pixel 0, 0 is $(pixel "$dense" 0)"
        [ "$(pixel "$dense" 191)" = "${colour[$right]}" ] || fail "$dense pixel 15, 11 is $(pixel "$dense" 191)"
    done
done

# Nothing outside the result folders: inputs untouched, no temporary files.
[ "$(find data -type f | sort)" = "$before" ] || fail "the data folders changed"
# The failed run made its (empty) result folder before it looked for frames.
[ "$(ls -A results | tr '\n' ' ')" = "a b broken c " ] || fail "results holds: $(ls -A results)"
[ -z "$(ls -A results/broken)" ] || fail "results/broken holds: $(ls -A results/broken)"
[ -z "$(find . -name '.partial-*')" ] || fail "temporary files left: $(find . -name '.partial-*')"
echo "segment_dataset: 3 sequences segmented in parallel, 1 failure reported"
