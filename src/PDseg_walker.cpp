#include "src/PDseg_walker.h"

#include <stdexcept>

void addWalkerCost(PDseg&, vela::Array<float, 2>&, const SegmentationSettings&) {
    throw std::runtime_error("the walker data term is not built yet");
}
