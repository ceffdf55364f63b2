#include "src/PDseg.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

#include "src/engine_arrays.h"

namespace {

struct StepParameters {
    float normBound;
    float tau;
    float sigma;
};

// tau * sigma = 1 / normBound in every row: the largest steps the scheme allows.
constexpr StepParameters kIsotropicSteps{8.0f, 0.1f, 1.25f};
constexpr StepParameters kTensorSteps{12.0f, 1.0f, 1.0f / 12.0f};
constexpr StepParameters kExpTensorSteps{20.0f, 1.0f, 0.05f};

}  // namespace

PDseg::PDseg(vela::Array<float4, 2>& img) : ImgSeg("PDseg", img) { init(); }

PDseg::PDseg(vela::Array<float4, 2>& img, vela::Array<float, 3>& givenCostMap) : ImgSeg("PDseg", img) {
    init();
    const unsigned int w = givenCostMap.extents.x, h = givenCostMap.extents.y, l = givenCostMap.extents.z;
    // Until construction succeeds the cost map stays the caller's.
    seg::ScopedArray<float, 3> relaxed(seg::deviceArray3D<float>(w, h, l));
    uResult = seg::deviceArray3D<float>(w, h, l);
    u = relaxed.release();
    costMap = givenCostMap;
    nLabels = static_cast<int>(l);
}

PDseg::~PDseg() {
    vela::freeArray(costMap);
    vela::freeArray(u);
    vela::freeArray(uResult);
    vela::freeArray(g);
}

void PDseg::init() {
    nLabels = -1;
    costMapType = 0;
    const SegmentationSettings defaults;
    applySolverSettings(*this, defaults, defaults.lambda);
}

void applySolverSettings(PDseg& seg, const SegmentationSettings& settings, float lambda) {
    seg.model = static_cast<PDseg::SegmentationModel>(settings.model);
    seg.lambda = lambda;
    seg.nIterations = settings.maxiter;
    seg.diffusivityType = settings.diffusivity;
    seg.alpha = settings.alpha;
    seg.edgeWeights = settings.edgeWeights == EdgeWeights::CONTRAST ? PDseg::CONTRAST_EDGES : PDseg::MODEL_WEIGHTS;
    seg.tolerance = settings.solverTolerance;
    seg.filterRadius = settings.costFilterRadius;
    seg.filterEpsilon = settings.costFilterEpsilon;
}

void PDseg::setAlgorithmParameter(SegmentationModel which) {
    StepParameters steps{};
    switch (which) {
        case TV:
        case WEIGHTED_TV:
        case WEIGHTED_TV_FAST:
            steps = kIsotropicSteps;
            break;
        case ANISOTROPIC_TV:
            steps = kTensorSteps;
            break;
        case ANISOTROPIC_EXP_TV:
            steps = kExpTensorSteps;
            break;
        default:
            std::cerr << "ERROR: PDseg::setAlgorithmParameter(): algorithm parameters not defined for this model"
                      << std::endl;
            std::exit(0);
    }
    normBound = steps.normBound;
    tau = steps.tau;
    sigma = steps.sigma;
}

void PDseg::allocateSolverArrays(unsigned int w, unsigned int h, int labels, const char* caller) {
    if (labels < 0)
        throw std::runtime_error(std::string(caller) + ": the number of labels must not be negative (got " +
                                 std::to_string(labels) + ")");
    const unsigned int l = static_cast<unsigned int>(labels);
    // No label, no layer: descriptors with the image's size and no memory.
    seg::ScopedArray<float, 3> fresh[3];
    for (auto& a : fresh) {
        if (l > 0) a.a = seg::deviceArray3D<float>(w, h, l);
        a.a.extents = make_uint3(w, h, l);
    }
    // The object owns its solver arrays, so a rebuilt cost map replaces them.
    vela::freeArray(costMap);
    vela::freeArray(u);
    vela::freeArray(uResult);
    costMap = fresh[0].release();
    u = fresh[1].release();
    uResult = fresh[2].release();
    nLabels = labels;
}
