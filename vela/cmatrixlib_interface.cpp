#include "vela/cmatrixlib_interface.h"

#include <climits>
#include <stdexcept>

#include "image/CMatrix.h"
#include "image/CTensor.h"

namespace vela {

namespace {

int imageSize(unsigned int extent) {
    if (extent > static_cast<unsigned int>(INT_MAX)) throw std::runtime_error("saveImage(): the array is too large");
    return static_cast<int>(extent);
}

template <class T>
void saveColorImage(const Array<T, 3>& a, const std::string& path, bool normalize) {
    const uint3 e = a.extents;
    if (e.z != 3)
        throw std::runtime_error(
            "\nvela/cmatrixlib_interface:221: saveImage() does not support writing color image from Array with "
            "dimensions (" +
            std::to_string(e.x) + "x" + std::to_string(e.y) + "x" + std::to_string(e.z) + ")");
    CTensor<T> image(imageSize(e.x), imageSize(e.y), 3);
    Array<T, 3> host = arrayFromHostMemory(image.data, e);
    arrayCopy(host, a);
    if (normalize)
        for (std::size_t i = 0; i < image.size(); ++i) image.data[i] = static_cast<T>(image.data[i] * 255);
    image.writeToImage(path.c_str());
}

}  // namespace

void saveImage(const Array<float, 3>& a, const std::string& path, bool normalize) {
    saveColorImage(a, path, normalize);
}

void saveImage(const Array<unsigned char, 3>& a, const std::string& path, bool normalize) {
    saveColorImage(a, path, normalize);
}

void saveImage(const Array<float, 2>& a, const std::string& path, bool normalize) {
    CMatrix<float> image(imageSize(a.extents.x), imageSize(a.extents.y));
    Array<float, 2> host = arrayFromHostMemory(image.data, a.extents);
    arrayCopy(host, a);
    if (normalize)
        for (std::size_t i = 0; i < image.size(); ++i) image.data[i] *= 255.0f;
    image.writeToImage(path.c_str());
}

}  // namespace vela
