// A segmentation of one colour image, with its renderings.
#pragma once

#include <string>

#include "src/Seg.h"

class ImgSeg : public Seg {
 public:
    ImgSeg(const std::string& name, vela::Array<float4, 2>& image);
    ~ImgSeg();

    // Blends `colorImage` over `image`: alpha * colour + (1 - alpha) * image.
    vela::Array<float4, 2>& getColorImageOverlay(float alpha);

    vela::Array<float4, 2> image;  // borrowed from the caller, never released
    vela::Array<float4, 2> colorImage;
    vela::Array<float4, 2> overlayImage;
};
