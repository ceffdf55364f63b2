#include "src/segment.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "src/dataterms/colour_model.h"
#include "src/dataterms/seed_check.h"
#include "src/dataterms/walker.h"
#include "src/engine_arrays.h"

namespace {

// The share of the colour term's weight a frame gets: in proportion to how
// well colour separates its labels at the seeds, the full weight from a
// separability of one half on.
float colourTrust(float separability) { return std::fmin(1.0f, 2.0f * separability); }

}  // namespace

void prepareSegmentation(PDseg& seg, vela::Array<float, 2>& labels, int numLabels, const SegmentationSettings& settings,
                         const WalkerCarry& walker) {
    applySolverSettings(seg, settings);
    vela::ScopedArray<float, 2> checked;
    vela::Array<float, 2>* seeds = &labels;
    if (settings.seedCheckRadius > 0 && numLabels > 0) {
        const unsigned int n = static_cast<unsigned int>(numLabels);
        const float scale = walkerColourScale(seg.image, settings.seedCheckBeta);
        if (settings.seedCheckFit > 0.0f) {
            const ColourModel colours(seg.image, labels, n);
            vela::ScopedArray<float, 2> fit(seg::deviceArray2D<float>(labels.extents.x, labels.extents.y));
            colours.seedFit(fit.a);
            checked.a = checkSeeds(seg.image, labels, n, settings.seedCheckRadius, settings.seedCheckShare, scale,
                                   fit.a, settings.seedCheckFit);
        } else {
            checked.a = checkSeeds(seg.image, labels, n, settings.seedCheckRadius, settings.seedCheckShare, scale);
        }
        seeds = &checked.a;
    }
    if (settings.lambdaSeedDensity > 0.0f && numLabels > 0) {
        const double share = static_cast<double>(countSeeds(*seeds, static_cast<unsigned int>(numLabels))) /
                             (static_cast<double>(labels.extents.x) * labels.extents.y);
        if (share < settings.lambdaSeedDensity)
            seg.lambda = static_cast<float>(seg.lambda * std::sqrt(share / settings.lambdaSeedDensity));
    }
    seg.labelsToCostMap(*seeds, numLabels);
    if (settings.dataTerm == DataTerm::WALKER) addWalkerCost(seg, *seeds, settings, walker);
    if (settings.colourWeight > 0.0f && numLabels > 0) {
        const ColourModel colours(seg.image, *seeds, static_cast<unsigned int>(numLabels));
        colours.addCost(seg.costMap, settings.colourWeight * colourTrust(colours.separability()));
    }
}

void applySolverSettings(PDseg& seg, const SegmentationSettings& settings) {
    seg.model = static_cast<PDseg::SegmentationModel>(settings.model);
    seg.lambda = settings.lambda;
    seg.nIterations = settings.maxiter;
    seg.diffusivityType = settings.diffusivity;
    seg.alpha = settings.alpha;
    seg.edgeWeights = settings.edgeWeights == EdgeWeights::CONTRAST ? PDseg::CONTRAST_EDGES : PDseg::MODEL_WEIGHTS;
    seg.tolerance = settings.solverTolerance;
    seg.filterRadius = settings.costFilterRadius;
    seg.filterEpsilon = settings.costFilterEpsilon;
}

void setLabelColours(PDseg& seg, const std::vector<int>& labelIds) {
    const unsigned int paletteSize = seg.colorCode.extents.x;
    std::vector<float4> palette(paletteSize);
    vela::Array<float4, 1> paletteView = seg::hostView1D(palette.data(), paletteSize);
    vela::arrayCopy(paletteView, seg.colorCode);
    std::vector<float4> table;
    for (int id : labelIds) {
        if (id < 0 || static_cast<unsigned int>(id) >= paletteSize)
            throw std::out_of_range("label " + std::to_string(id) + " has no colour (labels 0 to " +
                                    std::to_string(paletteSize - 1) + ")");
        table.push_back(palette[id]);
    }
    const unsigned int n = static_cast<unsigned int>(table.size());
    vela::freeArray(seg.labelColors);
    seg.labelColors = seg::deviceArray1D<float4>(n);
    vela::arrayCopy(seg.labelColors, seg::hostView1D(table.data(), n));
}
