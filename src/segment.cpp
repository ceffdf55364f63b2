#include "src/segment.h"

#include "src/PDseg_walker.h"
#include "src/seed_check.h"

void prepareSegmentation(PDseg& seg, vela::Array<float, 2>& labels, int numLabels,
                         const SegmentationSettings& settings) {
    seg.model = static_cast<PDseg::SegmentationModel>(settings.model);
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
    seg.lambda = settings.lambda;
    seg.nIterations = settings.maxiter;
    seg.diffusivityType = settings.diffusivity;
    seg.alpha = settings.alpha;
}
