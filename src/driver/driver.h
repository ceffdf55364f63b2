// The command-line program: start-up, the frame loop and the track export.
//
//     denseseg <filestructure> <image_filename> <trackfile> <frame index> <result directory>
//
// One frame (index >= 0) or every image of the image's folder (index < 0) is
// segmented from the labelled points of the track file; each frame gives
// <stem>_dense.ppm and <stem>_overlay.ppm in the result folder.  Whole-folder
// mode then writes all dense results back as a track file.
#pragma once

#include <string>
#include <vector>

#include "src/driver/tracks.h"
#include "src/settings.h"
#include "vela/tools.h"

// Reads a colour image file (PPM, PNG or JPEG) into a new host array of float4 pixels,
// R, G and B in 0 to 255 in x, y and z.  The caller frees it.
vela::Array<float4, 2> loadColorImage(const std::string& path);

// Results of a frame written beside the dense picture and the overlay, chosen
// by optional configuration keys.
struct FrameOutputs {
    // "i writeLabels 1": outputStem + "_labels.png", the track label number
    // of every pixel as an 8-bit palette PNG in the palette's colours.
    bool labels = false;
};

// Turns every "*dense*.ppm" of `resultFolder` (which ends with "/") into one
// track file named like `trackPath` in that folder: one track of length 1 per
// pixel, labelled by the position of its colour among all colours met.
// Never replaces a file listed in `inputs`.  Returns the exit status.
int exportTracks(const std::string& resultFolder, const std::string& trackPath, const std::vector<std::string>& inputs);

// The whole program; returns its exit status.  Errors are reported on
// standard error (status 1); a malformed configuration file ends the process
// with status 255.
int denseseg(int argc, char** argv);
