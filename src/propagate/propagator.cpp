#include "src/propagate/propagator.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "src/driver/label_map.h"
#include "src/driver/tracks.h"
#include "src/engine_arrays.h"
#include "src/propagate/point_steps.h"
#include "vela/algorithms/basic.h"

namespace propagate {

namespace {

using Clock = std::chrono::steady_clock;

// Label values a map can hold, and the share of a label's pixels that its
// margin must leave sure.
constexpr unsigned int kLabelValues = 256;
constexpr double kSureShare = 0.5;
// The reach of an object's clicks: this share of their widest distance, and
// at least kLeastClickReach of the frame's diagonal.
constexpr float kSpreadShare = 0.5f;
constexpr float kLeastClickReach = 0.1f;

// The median of values (reordered).
float median(std::vector<float>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A host vector of n elements viewed as a 1-D array.
template <class T>
vela::Array<T, 1> view(std::vector<T>& values) {
    return seg::hostView1D(values.data(), static_cast<unsigned int>(values.size()));
}

// Label values as the device steps read them: negative where open.
vela::ScopedArray<int, 2> deviceLabelValues(const std::vector<std::uint8_t>& values, unsigned int w, unsigned int h) {
    std::vector<int> ints(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) ints[i] = values[i] == kUnlabelled ? -1 : values[i];
    return seg::deviceCopy(vela::arrayFromHostMemory(ints.data(), make_uint2(w, h)));
}

}  // namespace

Propagator::Propagator(const SegmentationSettings& settings, const TrackerSettings& tracker, TrackRecorder* recorder)
    : settings_(settings), tracker_(tracker), recorder_(recorder) {
    if (tracker_.trackSpacing < 1) throw std::invalid_argument("the track spacing must be at least 1 pixel");
}

Propagator::~Propagator() = default;

vela::ScopedArray<float2, 1> Propagator::devicePositions() const {
    std::vector<float2> positions(points_.size());
    for (std::size_t i = 0; i < points_.size(); ++i) positions[i] = make_float2(points_[i].x, points_[i].y);
    return seg::deviceCopy(view(positions));
}

void Propagator::followTracks(const vela::Array<float4, 2>& image) {
    FlowPair flow;
    forward_ = {};
    backward_ = {};
    if (!flow_.next(image, flow)) return;
    forward_ = seg::deviceCopy(vela::arrayFromHostMemory(flow.forward.data(), make_uint2(width_, height_)));
    backward_ = seg::deviceCopy(vela::arrayFromHostMemory(flow.backward.data(), make_uint2(width_, height_)));
    if (points_.empty()) return;
    const unsigned int n = static_cast<unsigned int>(points_.size());
    std::vector<float2> positions(n);
    for (unsigned int i = 0; i < n; ++i) positions[i] = make_float2(points_[i].x, points_[i].y);
    const std::vector<int> keep = followFlow(positions);

    std::size_t alive = 0;
    for (unsigned int i = 0; i < n; ++i) {
        if (keep[i] == 0) continue;
        Point p = points_[i];
        p.fromX = p.x;
        p.fromY = p.y;
        p.x = positions[i].x;
        p.y = positions[i].y;
        if (recorder_ != nullptr) recorder_->addPoint(p.track, p.x, p.y, static_cast<int>(frame_));
        points_[alive++] = p;
    }
    points_.resize(alive);
    relabelByMotion();
}

void Propagator::relabelByMotion() {
    if (tracker_.motionFrames <= 0 || points_.empty()) return;
    // Each label's motion from its tracks that were in the frame before.
    std::vector<int> labels;
    for (const Point& p : points_)
        if (p.label >= 0 && p.fromX >= 0.0f && std::find(labels.begin(), labels.end(), p.label) == labels.end())
            labels.push_back(p.label);
    if (labels.size() < 2) {
        // No other label to move like: every run of frames ends here.
        for (Point& p : points_) {
            p.movesLike = -1;
            p.frames = 0;
        }
        return;
    }
    std::vector<float4> motions;
    for (const int label : labels) {
        std::vector<float> xs, ys;
        for (const Point& p : points_)
            if (p.label == label && p.fromX >= 0.0f) {
                xs.push_back(p.x - p.fromX);
                ys.push_back(p.y - p.fromY);
            }
        const float mx = median(xs), my = median(ys);
        std::size_t near = 0;
        for (std::size_t i = 0; i < xs.size(); ++i) near += std::hypot(xs[i] - mx, ys[i] - my) <= kMotionMisfit;
        const bool coherent = static_cast<double>(near) >= kMotionCoherence * static_cast<double>(xs.size());
        motions.push_back(make_float4(mx, my, coherent ? 1.0f : 0.0f, 0.0f));
    }
    const unsigned int n = static_cast<unsigned int>(points_.size());
    std::vector<float4> packed(n);
    std::vector<int> layers(n, -1);
    for (unsigned int i = 0; i < n; ++i) {
        const Point& p = points_[i];
        packed[i] = make_float4(p.x, p.y, p.fromX, p.fromY);
        const auto found = std::find(labels.begin(), labels.end(), p.label);
        if (p.fromX >= 0.0f && found != labels.end()) layers[i] = static_cast<int>(found - labels.begin());
        if (p.fromX >= 0.0f && p.label < 0) layers[i] = kNoLabelYet;
    }
    const vela::ScopedArray<float4, 1> devicePoints = seg::deviceCopy(view(packed));
    const vela::ScopedArray<int, 1> deviceLayers = seg::deviceCopy(view(layers));
    const vela::ScopedArray<float4, 1> deviceMotions = seg::deviceCopy(view(motions));
    vela::ScopedArray<int, 1> better(seg::deviceArray1D<int>(n));
    motionMisfits(devicePoints.a, deviceLayers.a, n, deviceMotions.a, better.a);
    std::vector<int> found(n);
    vela::Array<int, 1> host = view(found);
    vela::arrayCopy(host, better.a);

    // One frame's motion can be the flow's error: a track changes its label
    // only after motionFrames frames in a row.
    for (unsigned int i = 0; i < n; ++i) {
        Point& p = points_[i];
        const int like = found[i] >= 0         ? labels[static_cast<std::size_t>(found[i])]
                         : found[i] == kStrays ? kBackground
                                               : -1;
        p.frames = like >= 0 && like == p.movesLike ? p.frames + 1 : (like >= 0 ? 1 : 0);
        p.movesLike = like;
        if (like < 0 || p.frames < tracker_.motionFrames) continue;
        p.label = like;
        p.movesLike = -1;
        p.frames = 0;
        if (recorder_ != nullptr && p.track >= 0) recorder_->setLabel(p.track, like);
    }
}

void Propagator::addPoints() {
    const unsigned int spacing = static_cast<unsigned int>(tracker_.trackSpacing);
    const unsigned int cw = (width_ + spacing - 1) / spacing, ch = (height_ + spacing - 1) / spacing;
    std::vector<int> counts(static_cast<std::size_t>(cw) * ch, 0);
    if (!points_.empty()) {
        const unsigned int n = static_cast<unsigned int>(points_.size());
        std::vector<int> all(n, 1);
        const vela::ScopedArray<float2, 1> devicePoints = devicePositions();
        const vela::ScopedArray<int, 1> kept = seg::deviceCopy(view(all));
        vela::ScopedArray<int, 2> cells(seg::deviceArray2D<int>(cw, ch));
        countPointsInCells(devicePoints.a, kept.a, n, spacing, cells.a);
        vela::Array<int, 2> host = vela::arrayFromHostMemory(counts.data(), make_uint2(cw, ch));
        vela::arrayCopy(host, cells.a);
    }
    // A new point at the centre of each empty cell, within the frame where
    // the last cell of a row or column is cut short.
    for (unsigned int cy = 0; cy < ch; ++cy) {
        for (unsigned int cx = 0; cx < cw; ++cx) {
            if (counts[static_cast<std::size_t>(cy) * cw + cx] > 0) continue;
            const float x = std::min((static_cast<float>(cx) + 0.5f) * static_cast<float>(spacing),
                                     static_cast<float>(width_) - 0.5f);
            const float y = std::min((static_cast<float>(cy) + 0.5f) * static_cast<float>(spacing),
                                     static_cast<float>(height_) - 0.5f);
            Point p{x, y, -1.0f, -1.0f, -1, -1, -1, 0};
            if (recorder_ != nullptr) {
                p.track = recorder_->newTrack(-1);
                recorder_->addPoint(p.track, x, y, static_cast<int>(frame_));
            }
            points_.push_back(p);
        }
    }
}

void Propagator::relabel(const std::vector<std::uint8_t>& map, int margin, bool all) {
    if (points_.empty()) return;
    const unsigned int n = static_cast<unsigned int>(points_.size()), m = static_cast<unsigned int>(margin);
    const vela::ScopedArray<int, 2> labels = deviceLabelValues(map, width_, height_);
    vela::ScopedArray<int, 2> rows(seg::deviceArray2D<int>(width_, height_));
    vela::ScopedArray<int, 2> radius(seg::deviceArray2D<int>(width_, height_));
    uniformRadius(labels.a, m, rows.a, radius.a);

    // Each label's margin: the largest up to `margin` that leaves it at least
    // kSureShare of its pixels, so that a thin object keeps tracks too.  Such
    // a label, in a segmented frame, is sure only where the segmentation is
    // about as thin as the label: a part more than twice as wide is a spill
    // (between the bars of a fence, say), and its tracks would feed it.
    vela::ScopedArray<int, 2> deviceCounts(seg::deviceArray2D<int>(m + 1, kLabelValues));
    countRadii(labels.a, radius.a, deviceCounts.a);
    std::vector<int> counts(static_cast<std::size_t>(m + 1) * kLabelValues);
    vela::Array<int, 2> countsHost = vela::arrayFromHostMemory(counts.data(), make_uint2(m + 1, kLabelValues));
    vela::arrayCopy(countsHost, deviceCounts.a);
    std::vector<int> margins(kLabelValues, 0);
    for (unsigned int l = 0; l < kLabelValues; ++l) {
        // The pixels whose radius is r or more, for each r.
        int* row = &counts[static_cast<std::size_t>(l) * (m + 1)];
        for (unsigned int r = m; r > 0; --r) row[r - 1] += row[r];
        for (unsigned int r = m; r > 0; --r)
            if (row[r] >= kSureShare * row[0]) {
                margins[l] = static_cast<int>(r);
                break;
            }
    }
    std::vector<int2> radii(kLabelValues);
    for (unsigned int l = 0; l < kLabelValues; ++l)
        radii[l] = make_int2(margins[l], all || margins[l] == margin ? margin : 2 * margins[l] + 1);
    const vela::ScopedArray<int2, 1> deviceRadii = seg::deviceCopy(view(radii));

    const vela::ScopedArray<float2, 1> devicePoints = devicePositions();
    vela::ScopedArray<int2, 1> found(seg::deviceArray1D<int2>(n));
    labelsAtPoints(devicePoints.a, n, labels.a, radius.a, deviceRadii.a, found.a);
    std::vector<int2> values(n);
    vela::Array<int2, 1> host = view(values);
    vela::arrayCopy(host, found.a);
    // From a segmented frame, no label where the pixel was hidden in the frame
    // before (following the backward flow fails the same checks): there the
    // segmentation still lags behind the object that uncovered it.
    std::vector<int> seenBefore(n, 1);
    if (!all && !forward_.empty()) {
        vela::ScopedArray<float2, 1> back(seg::deviceArray1D<float2>(n));
        vela::ScopedArray<int, 1> seen(seg::deviceArray1D<int>(n));
        followPoints(devicePoints.a, n, backward_.a, forward_.a, back.a, seen.a);
        vela::Array<int, 1> seenHost = view(seenBefore);
        vela::arrayCopy(seenHost, seen.a);
    }
    for (unsigned int i = 0; i < n; ++i) {
        Point& p = points_[i];
        if (all || (p.label < 0 && seenBefore[i] == 1)) p.label = values[i].x;
        if (recorder_ == nullptr || p.track < 0) continue;
        // A track without a sure label keeps the label under its point for
        // the file, until a sure one comes.
        if (p.label >= 0)
            recorder_->setLabel(p.track, p.label);
        else if (values[i].y >= 0)
            recorder_->setLabel(p.track, values[i].y);
    }
}

std::vector<std::uint8_t> Propagator::labelsFromClicks(vela::Array<float4, 2>& device,
                                                       const std::vector<Click>& clicks) {
    std::vector<TrackPoints> tracks;
    for (const Click& click : clicks) {
        if (!(click.x >= 0.0f && click.y >= 0.0f && click.x < static_cast<float>(width_) &&
              click.y < static_cast<float>(height_)))
            throw std::invalid_argument("click (" + std::to_string(click.x) + ", " + std::to_string(click.y) +
                                        ") of frame " + std::to_string(frame_) + " lies outside the " +
                                        std::to_string(width_) + " x " + std::to_string(height_) + " frame");
        if (click.label < 0 || click.label >= kTrackLabelLimit)
            throw std::invalid_argument("click label " + std::to_string(click.label) + " of frame " +
                                        std::to_string(frame_) + " is not from 0 to " +
                                        std::to_string(kTrackLabelLimit - 1));
        // At its pixel's centre, which the seed reader takes on every pixel.
        const float x = static_cast<float>(static_cast<int>(click.x)) + 0.5f;
        const float y = static_cast<float>(static_cast<int>(click.y)) + 0.5f;
        tracks.push_back(TrackPoints{click.label, {make_float3(x, y, static_cast<float>(frame_))}});
    }
    std::vector<float> seedValues(static_cast<std::size_t>(width_) * height_, -1.0f);
    vela::Array<float, 2> hostSeeds = vela::arrayFromHostMemory(seedValues.data(), make_uint2(width_, height_));
    FrameSeeds seeds;
    seedsOfTracks(tracks, frame_, static_cast<int>(width_), static_cast<int>(height_), hostSeeds, seeds.labelIds);
    const vela::ScopedArray<float, 2> labels = seg::deviceCopy(hostSeeds);
    seeds.labels = labels.a;
    // The clicks alone: no frame before, no motion.
    SegmentationSettings alone = settings_;
    alone.temporal = 0;
    FrameSolver seg(device);
    setLabelColours(seg, seeds.labelIds);
    prepareFrame(seg, seeds, alone);
    addClickReach(seg, tracks, seeds.labelIds);
    addClickMotion(seg, tracks, seeds.labelIds);
    solveFrame(seg);
    return labelNumbers(seg.u, seeds.labelIds);
}

void Propagator::addClickReach(PDseg& seg, const std::vector<TrackPoints>& clicks, const std::vector<int>& labelIds) {
    if (tracker_.clickReachWeight <= 0.0f) return;
    // Each object's reach: half the widest distance between its clicks, at
    // least kLeastClickReach of the frame's diagonal (one click says little of
    // an object's size).  Clicks spread over an object; beyond its reach the
    // label costs more with the distance, up to the weight at twice the reach.
    const float leastReach = kLeastClickReach * std::hypot(static_cast<float>(width_), static_cast<float>(height_));
    std::vector<float4> packed;
    for (std::size_t layer = 0; layer < labelIds.size(); ++layer) {
        float spread = 0.0f;
        for (const TrackPoints& a : clicks)
            for (const TrackPoints& b : clicks)
                if (a.label == labelIds[layer] && b.label == labelIds[layer])
                    spread = std::max(spread, std::hypot(a.points[0].x - b.points[0].x, a.points[0].y - b.points[0].y));
        for (const TrackPoints& click : clicks)
            if (click.label == labelIds[layer])
                packed.push_back(make_float4(click.points[0].x, click.points[0].y, static_cast<float>(layer),
                                             std::max(kSpreadShare * spread, leastReach)));
    }
    const auto background = std::find(labelIds.begin(), labelIds.end(), kBackground);
    const vela::ScopedArray<float4, 1> deviceClicks = seg::deviceCopy(view(packed));
    addClickReachCost(seg.costMap, deviceClicks.a, static_cast<unsigned int>(packed.size()), tracker_.clickReachWeight,
                      background == labelIds.end() ? -1 : static_cast<int>(background - labelIds.begin()));
}

void Propagator::addClickMotion(PDseg& seg, const std::vector<TrackPoints>& clicks, const std::vector<int>& labelIds) {
    if (tracker_.clickMotionWeight <= 0.0f || backward_.empty()) return;
    std::vector<float2> backward(static_cast<std::size_t>(width_) * height_);
    vela::Array<float2, 2> host = vela::arrayFromHostMemory(backward.data(), make_uint2(width_, height_));
    vela::arrayCopy(host, backward_.a);
    // Each click's motion: the median over its 3 x 3 pixels, in x and in y,
    // so that one stray flow vector at the click does not speak for it.
    std::vector<float4> motions;
    for (const TrackPoints& click : clicks) {
        const auto layer = std::find(labelIds.begin(), labelIds.end(), click.label);
        if (layer == labelIds.end()) continue;  // a click another one overwrote
        const int cx = static_cast<int>(click.points[0].x), cy = static_cast<int>(click.points[0].y);
        std::vector<float> xs, ys;
        for (int y = std::max(cy - 1, 0); y <= std::min(cy + 1, static_cast<int>(height_) - 1); ++y)
            for (int x = std::max(cx - 1, 0); x <= std::min(cx + 1, static_cast<int>(width_) - 1); ++x) {
                const float2 b = backward[static_cast<std::size_t>(y) * width_ + x];
                xs.push_back(-b.x);
                ys.push_back(-b.y);
            }
        const std::size_t middle = xs.size() / 2;
        std::nth_element(xs.begin(), xs.begin() + middle, xs.end());
        std::nth_element(ys.begin(), ys.begin() + middle, ys.end());
        motions.push_back(make_float4(xs[middle], ys[middle], static_cast<float>(layer - labelIds.begin()), 0.0f));
    }
    // After the cost filter: the filter fits costs to the frame's colours, and
    // motion is what tells apart an object of its background's colours.
    const vela::ScopedArray<float4, 1> deviceMotions = seg::deviceCopy(view(motions));
    seg.costsAfterFilter = vela::ScopedArray<float, 3>(
        seg::deviceArray3D<float>(width_, height_, static_cast<unsigned int>(labelIds.size())));
    vela::Array<float, 4> zero = vela::internal::increaseArrayDimension(seg.costsAfterFilter.a);
    vela::set(zero, 0.0f);
    addClickMotionCost(seg.costsAfterFilter.a, backward_.a, forward_.a, deviceMotions.a,
                       static_cast<unsigned int>(motions.size()), tracker_.clickMotionWeight);
}

std::vector<int> Propagator::followFlow(std::vector<float2>& positions) const {
    const unsigned int n = static_cast<unsigned int>(positions.size());
    std::vector<int> keep(n);
    if (n == 0) return keep;
    const vela::ScopedArray<float2, 1> from = seg::deviceCopy(view(positions));
    vela::ScopedArray<float2, 1> moved(seg::deviceArray1D<float2>(n));
    vela::ScopedArray<int, 1> kept(seg::deviceArray1D<int>(n));
    followPoints(from.a, n, forward_.a, backward_.a, moved.a, kept.a);
    vela::Array<float2, 1> movedHost = view(positions);
    vela::Array<int, 1> keepHost = view(keep);
    vela::arrayCopy(movedHost, moved.a);
    vela::arrayCopy(keepHost, kept.a);
    return keep;
}

std::vector<Click> Propagator::followClicks(const std::vector<Click>& clicks) const {
    std::vector<Click> followed;
    if (clicks.empty() || forward_.empty()) return followed;
    std::vector<float2> positions;
    for (const Click& click : clicks) positions.push_back(make_float2(click.x, click.y));
    const std::vector<int> keep = followFlow(positions);
    for (std::size_t i = 0; i < clicks.size(); ++i)
        if (keep[i] == 1) followed.push_back(Click{positions[i].x, positions[i].y, clicks[i].label});
    // Every clicked label must keep a click, or the frame labelled from them
    // would lose it: then none is carried, and the frame is segmented from its
    // tracks as any other.
    for (const Click& click : clicks) {
        const auto kept =
            std::find_if(followed.begin(), followed.end(), [&](const Click& c) { return c.label == click.label; });
        if (kept == followed.end()) return {};
    }
    return followed;
}

void Propagator::segment(vela::Array<float4, 2>& device, const std::vector<std::uint8_t>* annotation) {
    std::vector<TrackPoints> tracks;
    for (const Point& p : points_) {
        if (p.label < 0) continue;
        TrackPoints track{p.label, {}};
        if (p.fromX >= 0.0f) track.points.push_back(make_float3(p.fromX, p.fromY, static_cast<float>(frame_) - 1));
        track.points.push_back(make_float3(p.x, p.y, static_cast<float>(frame_)));
        tracks.push_back(std::move(track));
    }
    const int w = static_cast<int>(width_), h = static_cast<int>(height_);
    std::vector<float> seedValues(static_cast<std::size_t>(width_) * height_, -1.0f);
    vela::Array<float, 2> hostSeeds = vela::arrayFromHostMemory(seedValues.data(), make_uint2(width_, height_));
    FrameSeeds seeds;
    solver_.reset();
    if (annotation != nullptr) {
        // An annotated frame is seeded by its annotation, every labelled pixel,
        // so that it keeps even the objects too thin for a track.
        std::vector<int> indexOf(kLabelValues, -1);
        for (std::size_t i = 0; i < annotation->size(); ++i) {
            const std::uint8_t value = (*annotation)[i];
            if (value == kUnlabelled) continue;
            if (indexOf[value] < 0) {
                indexOf[value] = static_cast<int>(seeds.labelIds.size());
                seeds.labelIds.push_back(value);
            }
            seedValues[i] = static_cast<float>(indexOf[value]);
        }
    } else {
        seedsOfTracks(tracks, frame_, w, h, hostSeeds, seeds.labelIds);
    }
    if (seeds.labelIds.empty()) {
        // Nothing labelled yet: the background throughout.
        carry_ = {};
        labelIds_.clear();
        labels_.assign(static_cast<std::size_t>(width_) * height_, 0);
        return;
    }
    requireAddressable(width_, height_, seeds.labelIds.size());
    const vela::ScopedArray<float, 2> labels = seg::deviceCopy(hostSeeds);
    seeds.labels = labels.a;
    if (settings_.temporal == 1) seeds.motion = motionOfTracks(tracks, frame_, w, h);
    solver_ = std::make_unique<FrameSolver>(device);
    setLabelColours(*solver_, seeds.labelIds);
    // An annotation is the user's word: no seed of it is checked (that would
    // vote on every pixel of the frame, most of a run's time), and its labels
    // are imposed below in any case.
    SegmentationSettings settings = settings_;
    if (annotation != nullptr) settings.seedCheckRadius = 0;
    carry_ = segmentFrame(*solver_, seeds, settings, std::move(carry_));
    labelIds_ = seeds.labelIds;
    if (annotation != nullptr) {
        // The annotation's labels win wherever the frame has a layer for them.
        std::vector<int> layers(annotation->size(), -1);
        for (std::size_t i = 0; i < layers.size(); ++i) {
            const auto found = std::find(labelIds_.begin(), labelIds_.end(), static_cast<int>((*annotation)[i]));
            if ((*annotation)[i] != kUnlabelled && found != labelIds_.end())
                layers[i] = static_cast<int>(found - labelIds_.begin());
        }
        const vela::ScopedArray<int, 2> deviceLayers =
            seg::deviceCopy(vela::arrayFromHostMemory(layers.data(), make_uint2(width_, height_)));
        imposeLayers(solver_->u, deviceLayers.a);
    }
    labels_ = labelNumbers(solver_->u, labelIds_);
}

FrameReport Propagator::next(const vela::Array<float4, 2>& image, const FrameInput& input,
                             const vela::Array<float4, 2>* upcoming) {
    const unsigned int w = image.extents.x, h = image.extents.y;
    if (frame_ == 0) {
        requireAddressable(w, h, 1);
        width_ = w;
        height_ = h;
    } else if (w != width_ || h != height_) {
        throw std::invalid_argument("frame " + std::to_string(frame_) + " is " + std::to_string(w) + " x " +
                                    std::to_string(h) + " pixels, but the first frame is " + std::to_string(width_) +
                                    " x " + std::to_string(height_) + "; all frames must have the same size");
    }
    if (input.annotation != nullptr && input.annotation->size() != static_cast<std::size_t>(w) * h)
        throw std::invalid_argument("the annotation of frame " + std::to_string(frame_) +
                                    " does not have the frame's " + std::to_string(w) + " x " + std::to_string(h) +
                                    " pixels");
    FrameReport report;
    Clock::time_point start = Clock::now();
    followTracks(image);
    // The next frame's flow runs while this one is segmented.
    if (upcoming != nullptr) flow_.prefetch(*upcoming);
    // The first frame's clicks, carried here, label this frame again, now
    // with their motion: unless the frame brings labels of its own.
    std::vector<Click> carried = followClicks(clicksToCarry_);
    clicksToCarry_.clear();
    report.trackingMs += msSince(start);
    const std::vector<Click>& clicks = input.annotation == nullptr && input.clicks.empty() ? carried : input.clicks;

    // The solver keeps reading the frame it was made on (the overlay): the
    // frame lives as long as it.
    solver_.reset();
    device_ = seg::deviceCopy(image);
    vela::ScopedArray<float4, 2>& device = device_;
    const std::vector<std::uint8_t>* annotation = input.annotation;
    int margin = tracker_.annotationMargin;
    std::vector<std::uint8_t> clicked;
    if (annotation == nullptr && !clicks.empty()) {
        start = Clock::now();
        clicked = labelsFromClicks(device.a, clicks);
        if (backward_.empty() && tracker_.clickMotionWeight > 0.0f) clicksToCarry_ = clicks;
        report.segmentationMs += msSince(start);
        annotation = &clicked;
        margin = tracker_.clickMargin;
    }
    if (annotation != nullptr) {
        // From an annotated frame on its labels win: every track through it
        // takes its label there, and new ones start in the cells without one.
        start = Clock::now();
        addPoints();
        relabel(*annotation, margin, true);
        report.trackingMs += msSince(start);
    }

    start = Clock::now();
    segment(device.a, annotation);
    report.segmentationMs += msSince(start);

    if (annotation == nullptr) {
        start = Clock::now();
        addPoints();
        if (solver_) relabel(labels_, tracker_.segmentationMargin, false);
        report.trackingMs += msSince(start);
    }
    report.labels = static_cast<unsigned int>(labelIds_.size());
    report.tracks = static_cast<unsigned int>(points_.size());
    ++frame_;
    return report;
}

}  // namespace propagate
