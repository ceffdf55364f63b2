#include "src/segment.h"

#include "src/PDseg_walker.h"

void prepareSegmentation(PDseg& seg, vela::Array<float, 2>& labels, int numLabels,
                         const SegmentationSettings& settings) {
    seg.model = static_cast<PDseg::SegmentationModel>(settings.model);
    seg.labelsToCostMap(labels, numLabels);
    if (settings.dataTerm == DataTerm::WALKER) addWalkerCost(seg, labels, settings);
    seg.lambda = settings.lambda;
    seg.nIterations = settings.maxiter;
    seg.diffusivityType = settings.diffusivity;
    seg.alpha = settings.alpha;
}
