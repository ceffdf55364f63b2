// The inputs of a propagation run: the frames of a folder, the annotations
// of a folder of label maps or a clicks file, and the settings.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "src/driver/config.h"
#include "src/propagate/propagator.h"

namespace propagate {

// The frame files of a folder (PPM, PNG or JPEG by extension, any case),
// sorted by name; throws std::runtime_error naming the folder when it cannot
// be listed or holds none.
std::vector<std::string> listFrames(const std::string& folder);

// The label maps of an annotations folder: for each of its ".png" files the
// index of the frame of the same name (without extension).  Throws
// std::runtime_error for a file named after no frame, or a folder without one.
std::map<unsigned int, std::string> listAnnotations(const std::string& folder, const std::vector<std::string>& frames);

// An annotation read and checked against the frame size: an 8-bit
// single-channel PNG of w x h values from 0 to 99 (labels) or 255 (open).
// Throws std::runtime_error naming the file and what is wrong.
std::vector<std::uint8_t> readAnnotation(const std::string& path, int w, int h);

// A clicks file: one "frame x y label" line per click ("#" starts a comment),
// grouped by frame.  Throws std::runtime_error naming the file and line for a
// malformed line, a frame past `frameCount`, a click outside the w x h frame
// or a label outside 0 to 99.
std::map<unsigned int, std::vector<Click>> readClicks(const std::string& path, std::size_t frameCount, int w, int h);

// The settings: configs/recommended.cfg, then configs/propagate.cfg, then the
// lines of `configPath` (none when empty), a later line of a key winning.
// Returns false with `error` naming the file and key on a bad value.
bool readPropagationSettings(const std::string& configPath, SegmentationSettings& settings, TrackerSettings& tracker,
                             std::string& error);
// The same with the entries of `user` in place of a file's.
bool propagationSettings(const ConfigMap& user, SegmentationSettings& settings, TrackerSettings& tracker,
                         std::string& error);

}  // namespace propagate
