#include "src/frame.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "src/dataterms/colour_model.h"
#include "src/dataterms/seed_check.h"
#include "src/dataterms/walker.h"
#include "src/engine_arrays.h"
#include "vela/device/runtime.h"
#include "vela/timer.h"

namespace {

// The share of the colour term's weight a frame gets: in proportion to how
// well colour separates its labels at the seeds, the full weight from a
// separability of one half on.
float colourTrust(float separability) { return std::fmin(1.0f, 2.0f * separability); }

// The seeds the seed check keeps (settings.seedCheckRadius > 0), as a new
// label image; `spread` is the image's colourSpread().
vela::ScopedArray<float, 2> checkedSeeds(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                                         unsigned int n, const SegmentationSettings& settings, double spread) {
    vela::ScopedArray<float, 2> fit;
    if (settings.seedCheckFit > 0.0f) {
        fit.a = seg::deviceArray2D<float>(labels.extents.x, labels.extents.y);
        ColourModel(image, labels, n).seedFit(fit.a);
    }
    return checkSeeds(image, labels, n, settings.seedCheckRadius, settings.seedCheckShare,
                      walkerColourScale(spread, settings.seedCheckBeta), fit.a, settings.seedCheckFit);
}

// The share of a frame's pixels that are seeds.
double seedShare(const vela::Array<float, 2>& seeds, unsigned int n) {
    return static_cast<double>(countSeeds(seeds, n)) / (static_cast<double>(seeds.extents.x) * seeds.extents.y);
}

// lambda, lowered where a frame has only a few seeds (lambdaSeedDensity).
float frameLambda(double share, const SegmentationSettings& settings) {
    if (settings.lambdaSeedDensity <= 0.0f || share >= settings.lambdaSeedDensity) return settings.lambda;
    return static_cast<float>(settings.lambda * std::sqrt(share / settings.lambdaSeedDensity));
}

// The walker's settings: sparseWalkerBeta as its beta where a frame has only
// a few seeds.
SegmentationSettings walkerSettings(double share, const SegmentationSettings& settings) {
    SegmentationSettings walker = settings;
    if (settings.sparseWalkerBeta > 0.0f && share < settings.lambdaSeedDensity)
        walker.walkerBeta = settings.sparseWalkerBeta;
    return walker;
}

// The bytes of a pitched W x H x L array of `element` bytes (rows padded as
// the host backend pads them, as a GPU does), and the most one may take.
unsigned long long arrayBytes(unsigned long long w, unsigned long long h, unsigned long long element,
                              unsigned long long layers) {
    const unsigned long long align = vela::device::kHostPitchAlignment;
    return (w * element + align - 1) / align * align * h * layers;
}
constexpr unsigned long long kLargestArray = 0xffffffffull;

}  // namespace

FrameSolver::~FrameSolver() {
    vela::freeArray(labelColors);
    vela::freeArray(colorCode);
}

bool addressable(unsigned long long w, unsigned long long h, unsigned long long labels) {
    return arrayBytes(w, h, sizeof(float2), labels) <= kLargestArray &&
           arrayBytes(w, h, sizeof(float4), 1) <= kLargestArray;
}

void requireAddressable(unsigned long long w, unsigned long long h, unsigned long long labels) {
    if (addressable(w, h, labels)) return;
    throw std::length_error("a " + std::to_string(w) + " x " + std::to_string(h) + " frame with " +
                            std::to_string(labels) + " labels is too large: the engine addresses at most 4 GiB (" +
                            std::to_string(kLargestArray) + " bytes) per array, and its W x H x L arrays would need " +
                            std::to_string(arrayBytes(w, h, sizeof(float2), labels)) + " bytes");
}

PreparedFrame prepareFrame(FrameSolver& seg, const FrameSeeds& seeds, const SegmentationSettings& settings,
                           const video::Carry& before) {
    const unsigned int n = static_cast<unsigned int>(seeds.labelIds.size());
    const vela::Array<float, 2>& labels = seeds.labels;
    requireAddressable(labels.extents.x, labels.extents.y, n);
    video::Start start;
    if (settings.temporal == 1) start = video::startFrom(before, seg.image, seeds.labelIds, seeds.motion, settings);
    PreparedFrame prepared{start.continued, {}};

    // The seed check and the walker read the colours' spread: reduced once.
    const bool check = settings.seedCheckRadius > 0 && n > 0, walker = settings.dataTerm == DataTerm::WALKER;
    const double spread = check || walker ? colourSpread(seg.image) : 0.0;
    vela::ScopedArray<float, 2> checked;
    if (check) checked = checkedSeeds(seg.image, labels, n, settings, spread);
    vela::Array<float, 2> kept = checked.empty() ? labels : checked.a;

    // Whether the frame has only a few seeds matters only with a density set.
    const double share = n > 0 && settings.lambdaSeedDensity > 0.0f ? seedShare(kept, n) : 1.0;
    applySolverSettings(seg, settings, frameLambda(share, settings));
    seg.labelsToCostMap(kept, static_cast<int>(n));
    if (walker)
        prepared.walker = addWalkerCost(seg, kept, walkerSettings(share, settings), spread,
                                        WalkerStart{start.walker.empty() ? nullptr : &start.walker.a,
                                                    static_cast<unsigned int>(settings.temporalWalkerRadius),
                                                    start.changed.empty() ? nullptr : &start.changed.a});
    if (settings.colourWeight > 0.0f && n > 0) {
        const ColourModel colours(seg.image, kept, n);
        colours.addCost(seg.costMap, settings.colourWeight * colourTrust(colours.separability()));
    }
    // The video's costs spare every pixel the frame's tracks label, kept or not.
    video::addVideoCosts(seg.costMap, start, before, seg.image, labels, seeds.labelIds, settings);
    seg.startU = std::move(start.u);
    seg.startDual = std::move(start.dual);
    seg.keepDual = settings.temporal == 1;
    if (settings.holdSeeds == 1 && n > 0) seg.heldLabels = seg::deviceCopy(kept);
    return prepared;
}

void solveFrame(PDseg& seg) {
    vela::timer::reset("PDseg::run()");
    vela::timer::start("PDseg::runTotal()");
    vela::timer::start("PDseg::run()");
    seg.run();
    vela::timer::stop("PDseg::run()");
    vela::timer::stop("PDseg::runTotal()");
}

video::Carry segmentFrame(FrameSolver& seg, const FrameSeeds& seeds, const SegmentationSettings& settings,
                          video::Carry before) {
    PreparedFrame prepared = prepareFrame(seg, seeds, settings, before);
    before = video::Carry{};
    solveFrame(seg);
    if (settings.temporal != 1) return {};
    return video::keep(seg, seeds.labelIds, std::move(prepared.walker), prepared.continued);
}

void setLabelColours(PDseg& seg, const std::vector<int>& labelIds) {
    const std::vector<float4> palette = seg::palette();
    std::vector<float4> table;
    for (int id : labelIds) {
        if (id < 0 || static_cast<std::size_t>(id) >= palette.size())
            throw std::out_of_range("label " + std::to_string(id) + " has no colour (labels 0 to " +
                                    std::to_string(palette.size() - 1) + ")");
        table.push_back(palette[id]);
    }
    vela::freeArray(seg.labelColors);
    seg.labelColors = seg::deviceCopy(seg::hostView1D(table.data(), static_cast<unsigned int>(table.size()))).release();
}
