// One frame's segmentation as the program and the Python package run it.
#pragma once

#include "src/PDseg.h"
#include "src/settings.h"

// Readies `seg`, built on the frame's device image, for seg.run(): sets the
// model, builds the cost map of `numLabels` labels from the device label image
// `labels` (label index per pixel, negative where no seed lies) with the data
// term the settings choose, and sets every solver parameter.
void prepareSegmentation(PDseg& seg, vela::Array<float, 2>& labels, int numLabels,
                         const SegmentationSettings& settings);
