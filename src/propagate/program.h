// The propagation program:
//
//     denseseg-propagate [--config FILE] FRAMES_DIR ANNOTATIONS OUT_DIR
//
// segments every frame of FRAMES_DIR from the annotated frames (a folder of
// label-map PNGs named as their frames) or a clicks file (".txt") with tracks
// it makes from the optical flow, and writes per frame <stem>.png (the label
// values), <stem>_dense.ppm and <stem>_overlay.ppm into OUT_DIR, then the
// tracks as OUT_DIR/tracks.dat.
#pragma once

// The whole program; returns its exit status (0 on success, 1 on any error,
// reported on standard error; 2 for a wrong command line).
int densesegPropagate(int argc, char** argv);
