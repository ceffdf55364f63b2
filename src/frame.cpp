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
// label image.
vela::ScopedArray<float, 2> checkedSeeds(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                                         unsigned int n, const SegmentationSettings& settings) {
    const float scale = walkerColourScale(image, settings.seedCheckBeta);
    if (settings.seedCheckFit <= 0.0f)
        return vela::ScopedArray<float, 2>(
            checkSeeds(image, labels, n, settings.seedCheckRadius, settings.seedCheckShare, scale));
    const ColourModel colours(image, labels, n);
    vela::ScopedArray<float, 2> fit(seg::deviceArray2D<float>(labels.extents.x, labels.extents.y));
    colours.seedFit(fit.a);
    return vela::ScopedArray<float, 2>(checkSeeds(image, labels, n, settings.seedCheckRadius, settings.seedCheckShare,
                                                  scale, fit.a, settings.seedCheckFit));
}

// lambda, lowered where a frame has only a few seeds (lambdaSeedDensity).
float frameLambda(const vela::Array<float, 2>& seeds, unsigned int n, const SegmentationSettings& settings) {
    if (settings.lambdaSeedDensity <= 0.0f) return settings.lambda;
    const double share =
        static_cast<double>(countSeeds(seeds, n)) / (static_cast<double>(seeds.extents.x) * seeds.extents.y);
    if (share >= settings.lambdaSeedDensity) return settings.lambda;
    return static_cast<float>(settings.lambda * std::sqrt(share / settings.lambdaSeedDensity));
}

}  // namespace

FrameSolver::~FrameSolver() {
    vela::freeArray(labelColors);
    vela::freeArray(colorCode);
}

void requireAddressable(unsigned long long w, unsigned long long h, unsigned long long labels) {
    const unsigned long long align = vela::device::kHostPitchAlignment;
    auto bytes = [&](unsigned long long element, unsigned long long layers) {
        return (w * element + align - 1) / align * align * h * layers;
    };
    const unsigned long long limit = 0xffffffffull;
    if (bytes(sizeof(float2), labels) <= limit && bytes(sizeof(float4), 1) <= limit) return;
    throw FrameTooLarge("a " + std::to_string(w) + " x " + std::to_string(h) + " frame with " + std::to_string(labels) +
                        " labels is too large: the engine addresses at most 4 GiB (" + std::to_string(limit) +
                        " bytes) per array, and its W x H x L arrays would need " +
                        std::to_string(bytes(sizeof(float2), labels)) + " bytes");
}

PreparedFrame prepareFrame(FrameSolver& seg, const FrameSeeds& seeds, const SegmentationSettings& settings,
                           const video::Carry& before) {
    const unsigned int n = static_cast<unsigned int>(seeds.labelIds.size());
    const vela::Array<float, 2>& labels = seeds.labels;
    requireAddressable(labels.extents.x, labels.extents.y, n);
    PreparedFrame prepared;
    video::Start start;
    if (settings.temporal == 1) start = video::startFrom(before, seg.image, seeds.labelIds, seeds.motion, settings);
    prepared.continued = start.continued;

    vela::ScopedArray<float, 2> checked;
    if (settings.seedCheckRadius > 0 && n > 0) checked = checkedSeeds(seg.image, labels, n, settings);
    vela::Array<float, 2> kept = checked.empty() ? labels : checked.a;

    applySolverSettings(seg, settings, n > 0 ? frameLambda(kept, n, settings) : settings.lambda);
    seg.labelsToCostMap(kept, static_cast<int>(n));
    if (settings.dataTerm == DataTerm::WALKER)
        prepared.walker = addWalkerCost(seg, kept, settings,
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
    return video::keep(seg, seeds.labelIds, std::move(prepared.walker.probabilities), prepared.continued,
                       prepared.walker.iterations);
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
    const unsigned int n = static_cast<unsigned int>(table.size());
    vela::freeArray(seg.labelColors);
    seg.labelColors = seg::deviceArray1D<float4>(n);
    vela::arrayCopy(seg.labelColors, seg::hostView1D(table.data(), n));
}
