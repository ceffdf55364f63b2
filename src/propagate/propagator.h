// Segmenting a video from an annotated frame (or a few clicks) with tracks the
// tool makes itself.  Points on a grid follow the optical flow from frame to
// frame and end where the forward and the backward flow disagree or where they
// leave the frame; grid cells without a point get a new one.  A track takes
// its label from an annotation where it passes through one, and otherwise
// from the segmentation of the frame where it is born; either only away from
// the boundaries between labels.  Each frame is segmented from the labelled
// tracks through it, as the program's whole-folder mode segments a frame from
// a track file.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "src/driver/tracks.h"
#include "src/frame.h"
#include "src/propagate/optical_flow.h"
#include "src/propagate/track_recorder.h"
#include "src/settings.h"

namespace propagate {

// The tracker's own settings, with their configuration keys.
struct TrackerSettings {
    int trackSpacing = 4;         // "i trackSpacing": pixels between grid points
    int annotationMargin = 3;     // "i annotationMargin": no label this near an annotation's boundary
    int clickMargin = 8;          // "i clickMargin": the same for a frame labelled from clicks
    int segmentationMargin = 10;  // "i segmentationMargin": the same for a segmented frame
    // "f clickReachWeight": in a frame of clicks, the most an object label
    // costs far from its clicks (0: nothing)
    float clickReachWeight = 3.0f;
    // "f clickMotionWeight": in a frame of clicks with a frame before it, the
    // most a label costs where the pixel moves unlike every click of it and
    // like another label's (0: nothing).  Clicks on the first frame are
    // carried to the second along the flow, which is labelled from them again
    // with their motion, where each clicked label keeps a click on the way.
    float clickMotionWeight = 4.0f;
    // "i motionFrames": a track that moves, this many frames in a row, unlike
    // its label's tracks and like another label's takes that label (like no
    // label's, the background's), and a track without a label one whose
    // tracks it clearly moves like (0: never; point_steps.h says when a track
    // moves like a label).
    int motionFrames = 2;
};

// Annotation values without a label: pixels an annotation leaves open.
constexpr std::uint8_t kUnlabelled = 255;
// The background's label, which lies anywhere.
constexpr int kBackground = 0;

struct Click {
    float x, y;
    int label;
};

// What a frame brings besides its pixels: an annotation (W x H label values,
// row-major, kUnlabelled where open), clicks, both or neither.
struct FrameInput {
    const std::vector<std::uint8_t>* annotation = nullptr;
    std::vector<Click> clicks;
};

struct FrameReport {
    unsigned int labels = 0;  // labels seeded in the frame
    unsigned int tracks = 0;  // tracks through the frame
    double trackingMs = 0, segmentationMs = 0;
};

class Propagator {
 public:
    // `recorder` (may be null) receives every track and its points.
    Propagator(const SegmentationSettings& settings, const TrackerSettings& tracker, TrackRecorder* recorder);
    ~Propagator();
    Propagator(const Propagator&) = delete;
    Propagator& operator=(const Propagator&) = delete;

    // Segments the next frame (a host W x H image, R, G and B in 0 to 255;
    // every frame must have the first one's size).  labels() then holds its
    // label values and solver() its solved labelling, until the next frame.
    // Given the frame that comes next, the optical flow to it runs on a
    // thread of its own while this frame is segmented (the same flow as
    // without: see OpticalFlow::prefetch).
    FrameReport next(const vela::Array<float4, 2>& image, const FrameInput& input,
                     const vela::Array<float4, 2>* upcoming = nullptr);

    // The frame's label value per pixel, row-major (0 throughout a frame
    // before any label is known).
    const std::vector<std::uint8_t>& labels() const { return labels_; }
    // The frame's solver with its labelling and label colours; null for a
    // frame before any label is known.
    FrameSolver* solver() { return solver_.get(); }
    const std::vector<int>& labelIds() const { return labelIds_; }

 private:
    struct Point {
        float x, y;
        float fromX, fromY;  // in the frame before; x < 0 for a point born in this frame
        int track;           // in the recorder (or -1 without one)
        int label;           // -1 until known
        int movesLike = -1;  // the label it has moved like instead of its own, -1 for none
        int frames = 0;      // for this many frames in a row
    };
    // The points' positions, on the device (not empty).
    vela::ScopedArray<float2, 1> devicePositions() const;
    void followTracks(const vela::Array<float4, 2>& image);
    std::vector<std::uint8_t> labelsFromClicks(vela::Array<float4, 2>& device, const std::vector<Click>& clicks);
    void addClickReach(PDseg& seg, const std::vector<TrackPoints>& clicks, const std::vector<int>& labelIds);
    void addClickMotion(PDseg& seg, const std::vector<TrackPoints>& clicks, const std::vector<int>& labelIds);
    // Moves `positions` along the forward flow; 1 where one passes the flow
    // checks, 0 where its track ends.
    std::vector<int> followFlow(std::vector<float2>& positions) const;
    std::vector<Click> followClicks(const std::vector<Click>& clicks) const;
    void relabel(const std::vector<std::uint8_t>& annotation, int margin, bool all);
    void relabelByMotion();
    void addPoints();
    void segment(vela::Array<float4, 2>& device, const std::vector<std::uint8_t>* annotation);

    SegmentationSettings settings_;
    TrackerSettings tracker_;
    TrackRecorder* recorder_;
    OpticalFlow flow_;
    unsigned int width_ = 0, height_ = 0, frame_ = 0;
    std::vector<Point> points_;
    std::vector<Click> clicksToCarry_;  // the clicks of a first frame, for the second
    std::vector<std::uint8_t> labels_;
    std::vector<int> labelIds_;
    vela::ScopedArray<float4, 2> device_;              // the frame, on the device
    vela::ScopedArray<float2, 2> forward_, backward_;  // its flow from and to the frame before
    std::unique_ptr<FrameSolver> solver_;
    video::Carry carry_;
};

}  // namespace propagate
