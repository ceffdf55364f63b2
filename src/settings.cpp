#include "src/settings.h"

const std::vector<SettingKey>& settingKeys() {
    using S = SegmentationSettings;
    static const std::vector<SettingKey> keys = {
        {"lambda", &S::lambda, 0, 0, {}, true},
        {"maxiter", &S::maxiter, 0, 0, {}, true},
        {"dataTerm", &S::dataTerm, 0, 0, {"seeds", "walker"}},
        {"edgeWeights", &S::edgeWeights, 0, 0, {"diffusivity", "contrast"}},
        {"model", &S::model, 0, 4},
        {"diffusivity", &S::diffusivity, 0, 1},
        {"alpha", &S::alpha, 1e-6, 1e6},
        {"dataWeight", &S::dataWeight, 0, 1e6},
        {"walkerBeta", &S::walkerBeta, 0, 1e6},
        {"walkerIterations", &S::walkerIterations, 0, 100000},
        {"walkerTolerance", &S::walkerTolerance, 0, 1},
        {"seedCheckRadius", &S::seedCheckRadius, 0, 100},
        {"seedCheckShare", &S::seedCheckShare, 0, 1},
        {"seedCheckBeta", &S::seedCheckBeta, 0, 1e6},
        {"seedCheckFit", &S::seedCheckFit, 0, 1},
        {"solverTolerance", &S::solverTolerance, 0, 1},
        {"colourWeight", &S::colourWeight, 0, 1e6},
        {"lambdaSeedDensity", &S::lambdaSeedDensity, 0, 1},
        {"sparseWalkerBeta", &S::sparseWalkerBeta, 0, 1e6},
        {"temporal", &S::temporal, 0, 1},
        {"temporalWeight", &S::temporalWeight, 0, 1e6},
        {"temporalMotionWeight", &S::temporalMotionWeight, 0, 1e6},
        {"temporalWalkerTolerance", &S::temporalWalkerTolerance, 0, 1},
        {"temporalWalkerRadius", &S::temporalWalkerRadius, 0, 100},
        {"temporalWalkerWarmStart", &S::temporalWalkerWarmStart, 0, 1},
        {"costFilterRadius", &S::costFilterRadius, 0, 100},
        {"costFilterEpsilon", &S::costFilterEpsilon, 1e-8, 1},
        {"holdSeeds", &S::holdSeeds, 0, 1},
    };
    return keys;
}
