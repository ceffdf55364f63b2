// Base of the segmentation objects: the label colour tables and a name.
#pragma once

#include <string>
#include <vector>

#include "vela/tools.h"

class Seg {
 public:
    explicit Seg(const std::string& name);
    // Not virtual: objects are always destroyed through their most derived type.
    ~Seg();
    Seg(const Seg&) = delete;
    Seg& operator=(const Seg&) = delete;

    virtual void run() = 0;

    // Fills `colorCode` with the fixed 100-entry palette, on the device.
    void build_colorCode();

    // The fixed palette, indexed by label number; never released.
    vela::Array<float4, 1> colorCode;
    // One colour per label of the current frame; never released.
    vela::Array<float4, 1> labelColors;
    std::string name;
};

namespace seg {
// The fixed palette of colorCode, on the host.
std::vector<float4> palette();
}  // namespace seg
