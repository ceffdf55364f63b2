#include "src/ImgSeg.h"

#include <cmath>
#include <stdexcept>

#include "src/engine_arrays.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace {

constexpr const char* kSource = "src/ImgSeg";
constexpr unsigned int kOverlayBlock = 32;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// out = alpha * colour + (1 - alpha) * image, per component.  The image term is
// formed first and the colour term fused onto it, so alpha = 0 and alpha = 1
// reproduce their inputs exactly.
struct overlay_images_kernel {
    VELA_HD void operator()(const vela::device::Thread& t, vela::Array<float4, 2> out, vela::Array<float4, 2> colour,
                            vela::Array<float4, 2> image, float alpha) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= out.extents.x || y >= out.extents.y) return;
        const float4 c = vela::at(colour, x, y);
        const float4 i = vela::at(image, x, y);
        const float keep = 1.0f - alpha;
        vela::at(out, x, y) = make_float4(fmaf(alpha, c.x, keep * i.x), fmaf(alpha, c.y, keep * i.y),
                                          fmaf(alpha, c.z, keep * i.z), fmaf(alpha, c.w, keep * i.w));
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

ImgSeg::ImgSeg(const std::string& segName, vela::Array<float4, 2>& img) : Seg(segName), image(img) {
    seg::ScopedArray<float4, 2> colour(seg::deviceArray2D<float4>(image.extents.x, image.extents.y));
    overlayImage = seg::deviceArray2D<float4>(image.extents.x, image.extents.y);
    colorImage = colour.release();
}

ImgSeg::~ImgSeg() {
    vela::freeArray(colorImage);
    vela::freeArray(overlayImage);
}

vela::Array<float4, 2>& ImgSeg::getColorImageOverlay(float alpha) {
    if (image.device == vela::kHostDevice)
        throw std::runtime_error("ImgSeg::getColorImageOverlay(): the image must be on the device");
    const dim3 block(kOverlayBlock, kOverlayBlock);
    const dim3 grid(vela::device::blocksFor(image.extents.x, kOverlayBlock),
                    vela::device::blocksFor(image.extents.y, kOverlayBlock));
    vela::device::launch<overlay_images_kernel>(grid, block, nullptr, overlayImage, colorImage, image, alpha);
    vela::_CHECK_CUDA_ERROR(kSource, 55);
    return overlayImage;
}
