#include "src/segment.h"

#include <stdexcept>
#include <string>

#include "src/dataterms/seed_check.h"
#include "src/dataterms/walker.h"
#include "src/engine_arrays.h"

void prepareSegmentation(PDseg& seg, vela::Array<float, 2>& labels, int numLabels,
                         const SegmentationSettings& settings) {
    applySolverSettings(seg, settings);
    vela::ScopedArray<float, 2> checked;
    vela::Array<float, 2>* seeds = &labels;
    if (settings.seedCheckRadius > 0 && numLabels > 0) {
        const float scale = walkerColourScale(seg.image, settings.seedCheckBeta);
        checked.a = checkSeeds(seg.image, labels, static_cast<unsigned int>(numLabels), settings.seedCheckRadius,
                               settings.seedCheckShare, scale);
        seeds = &checked.a;
    }
    seg.labelsToCostMap(*seeds, numLabels);
    if (settings.dataTerm == DataTerm::WALKER) addWalkerCost(seg, *seeds, settings);
}

void applySolverSettings(PDseg& seg, const SegmentationSettings& settings) {
    seg.model = static_cast<PDseg::SegmentationModel>(settings.model);
    seg.lambda = settings.lambda;
    seg.nIterations = settings.maxiter;
    seg.diffusivityType = settings.diffusivity;
    seg.alpha = settings.alpha;
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
