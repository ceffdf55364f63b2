// One frame's segmentation as the program and the Python package run it.
#pragma once

#include <vector>

#include "src/PDseg.h"
#include "src/dataterms/walker.h"
#include "src/settings.h"

// Readies `seg`, built on the frame's device image, for seg.run(): builds the
// cost map of `numLabels` labels from the device label image `labels` (label
// index per pixel, negative where no seed lies) with the data term the
// settings choose, and sets every solver parameter (applySolverSettings).
// `walker` carries the walker's solve from frame to frame in a video.
void prepareSegmentation(PDseg& seg, vela::Array<float, 2>& labels, int numLabels, const SegmentationSettings& settings,
                         const WalkerCarry& walker = {});

// Sets the solver's parameters from the settings: the model, lambda, the
// iterations, the edge weights and the tolerance.  Every caller that
// runs the solver sets them here, whatever made its cost map.
void applySolverSettings(PDseg& seg, const SegmentationSettings& settings);

// Gives seg.labelColors one palette colour per label index k: the entry of
// seg.colorCode for track label labelIds[k], so that a track keeps its colour
// in every frame whatever the order its label is met in.  Throws
// std::out_of_range for a label without a palette entry.
void setLabelColours(PDseg& seg, const std::vector<int>& labelIds);

// The object leaves its colour tables to the end of the process; a caller
// that segments many frames releases them with each frame through this guard.
// Released descriptors are emptied, so a later release does nothing.
struct ColourTablesOfFrame {
    PDseg& seg;
    ~ColourTablesOfFrame() {
        vela::freeArray(seg.labelColors);
        vela::freeArray(seg.colorCode);
    }
};
