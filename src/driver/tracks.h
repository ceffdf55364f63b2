// Track files: labelled point trajectories through the frames of a sequence.
//
// Plain text, whitespace-separated decimal numbers:
//
//     <frame count> <track count>
//     then per track:  <label> <point count>
//     then per point:  <x> <y> <frame>
//
// x is the column and y the row in pixels (floats); label, counts and frame
// numbers are ints.  Equal labels mean the same object.
#pragma once

#include <string>
#include <vector>

#include "src/video/motion.h"
#include "vela/tools.h"

// Labels index the fixed 100-entry label colour palette, so only 0 to 99 work.
constexpr int kTrackLabelLimit = 100;

// Label count returned when the file is missing, the frame lies outside the
// file's frame count, or the file cannot be read (see readTrackFrame).
constexpr int kNoTrackFrame = -1;

// Builds the sparse label image of one frame.
//
// `labels` is a host W x H image the caller has filled with -1 (unlabelled).
// Every point whose frame is `frame` and that lies strictly inside the image
// (0 < x < w, 0 < y < h; a point on row or column 0 is rejected) marks the
// pixel (truncate(x), truncate(y)) with its label index: the position of its
// track label in `labelIds`, where labels are listed in the order in which
// their first accepted point was met.  A later point on the same pixel wins.
//
// Returns the number of label indices used (0 when no point was accepted),
// or kNoTrackFrame:
//   - the file cannot be opened: "File <path> not found." on standard output;
//   - `frame` is not below the file's frame count (signed comparison): no
//     message, nothing further is read;
//   - the file is malformed or ends early, or an accepted point carries a
//     label outside 0 to kTrackLabelLimit - 1: one line on standard error
//     naming the file and where reading stopped; `labels` is left all -1 and
//     `labelIds` empty.
int readTrackFrame(const std::string& path, unsigned int frame, int w, int h, vela::Array<float, 2>& labels,
                   std::vector<int>& labelIds);

// A track held in memory: its label and its points (x, y, frame).
struct TrackPoints {
    int label = 0;
    std::vector<float3> points;
};

// The sparse label image of one frame from tracks in memory, by the rules of
// readTrackFrame (points strictly inside, later points win, label indices in
// the order their labels are first met); returns the number of indices.
// Labels must lie within 0 to kTrackLabelLimit - 1 (the caller checks).
int seedsOfTracks(const std::vector<TrackPoints>& tracks, unsigned int frame, int w, int h,
                  vela::Array<float, 2>& labels, std::vector<int>& labelIds);

// The motion from frame - 1 to `frame` of every track with a point inside the
// image (by readTrackFrame's rule) in both; none for frame 0.
std::vector<video::MotionPoint> motionOfTracks(const std::vector<TrackPoints>& tracks, unsigned int frame, int w,
                                               int h);

// Reads a whole track file into memory, with its frame count.  False where
// readTrackFrame would refuse the file (with `problem` saying why) or cannot
// open it.
bool readTracks(const std::string& path, std::vector<TrackPoints>& tracks, std::string& problem, int& frameCount);

// A track file read once for all the frames of a run.  frame() gives what
// readTrackFrame gives, without reading the file again; a file that cannot be
// held whole (missing, unreadable, malformed, or with a label outside the
// palette) is read by readTrackFrame for every frame, so that each frame
// reports it as before.
class TrackFile {
 public:
    explicit TrackFile(std::string path);

    int frame(unsigned int frame, int w, int h, vela::Array<float, 2>& labels, std::vector<int>& labelIds) const;

    // The tracks, when the file is held; none otherwise.
    const std::vector<TrackPoints>& tracks() const { return tracks_; }
    const std::string& path() const { return path_; }

 private:
    std::string path_;
    bool held_ = false;
    int frameCount_ = 0;
    std::vector<TrackPoints> tracks_;
};
