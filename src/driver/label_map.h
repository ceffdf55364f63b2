// The label map of a frame: per pixel the track label number of its label,
// with the label palette as the colour table, written as an 8-bit palette
// PNG that is both a picture and machine-readable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vela/tools.h"

// The track label number (labelIds[k]) of the layer k that holds each pixel's
// largest value (the first on a tie) in the W x H x L labelling `u`, host or
// device, row-major.  Label numbers are below 256 (the palette has 100).
std::vector<std::uint8_t> labelNumbers(const vela::Array<float, 3>& u, const std::vector<int>& labelIds);

// The palette `colorCode` (host or device) as RGB bytes, each channel written
// as the dense picture writes it, so a label's entry is the dense colour.
std::vector<std::uint8_t> paletteBytes(const vela::Array<float4, 1>& colorCode);
