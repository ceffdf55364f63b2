#!/usr/bin/env bash
# The demo: builds the program, generates a short synthetic video with
# labelled point tracks and ground truth into demo-out/, segments every frame
# in whole-folder mode, scores the result against the ground truth and says
# where the pictures are, with all of them side by side in one PNG.  Installs what a fresh machine lacks (as root).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
vela_build_packages

echo "== build"
cmake --preset default >/dev/null
cmake --build --preset default -j "$(vela_jobs)" --target denseseg make_demo score_segmentation contact_sheet >/dev/null

out=demo-out
echo "== generate the demo into $out/"
rm -rf "$out"
build/tools/make_demo "$out"

# Without a GPU the kernels run on CPU threads; waiting threads sleep rather
# than spin, so the demo stays quick on a machine that is busy with other work.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}

# The recommended settings after the demo's own lines: the last line for a key wins.
cat "$out/filestructure" configs/recommended.cfg > "$out/recommended.cfg"

echo "== segment every frame (configs/recommended.cfg)"
start=$(date +%s.%N)
(cd "$out" && ../build/src/denseseg recommended.cfg frame_000.ppm tracks.dat -1 demo)
end=$(date +%s.%N)
awk -v s="$start" -v e="$end" 'BEGIN { printf "segmentation took %.1f s\n", e - s }'

echo "== score against the ground truth"
build/tools/score_segmentation "$out/groundtruth" "$out/results/demo"

sheet=$out/contact_sheet.png
build/tools/contact_sheet "$out/frames" "$out/results/demo" "$out/groundtruth" "$sheet"

echo
echo "contact sheet (PNG; per frame: input, segmentation, overlay, ground truth):"
echo "  $sheet"
echo "pictures (binary PPM):"
echo "  segmentations  $out/results/demo/frame_*_dense.ppm"
echo "  overlays       $out/results/demo/frame_*_overlay.ppm"
echo "  input frames   $out/frames/frame_*.ppm"
echo "  ground truth   $out/groundtruth/frame_*.pgm"
echo "  exported track file  $out/results/demo/tracks.dat"
