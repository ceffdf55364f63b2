#include "image/CTensor.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "image/rgb_image.h"
#include "vela/algorithms/scalar_cast.h"

namespace {

unsigned char fileByte(float v) { return vela::internal::lowByte(v); }
unsigned char fileByte(unsigned char v) { return v; }

template <class T>
T* allocateSamples(int x, int y, int z) {
    if (x < 0 || y < 0 || z < 0) throw std::runtime_error("CTensor: sizes must not be negative");
    const std::size_t n = static_cast<std::size_t>(x) * static_cast<std::size_t>(y) * static_cast<std::size_t>(z);
    return n == 0 ? nullptr : new T[n]();
}

template <class T>
void requirePlanes(const CTensor<T>& t, const char* path) {
    if (t.zSize < 1) throw std::runtime_error(std::string(path) + ": cannot write an image without planes");
}

}  // namespace

template <class T>
CTensor<T>::CTensor() : xSize(0), ySize(0), zSize(0), data(nullptr) {}

template <class T>
CTensor<T>::CTensor(int x, int y, int z) : xSize(x), ySize(y), zSize(z), data(allocateSamples<T>(x, y, z)) {}

template <class T>
CTensor<T>::CTensor(const CTensor& other) : CTensor(other.xSize, other.ySize, other.zSize) {
    std::copy(other.data, other.data + size(), data);
}

template <class T>
CTensor<T>::CTensor(CTensor&& other) noexcept
    : xSize(other.xSize), ySize(other.ySize), zSize(other.zSize), data(other.data) {
    other.xSize = other.ySize = other.zSize = 0;
    other.data = nullptr;
}

template <class T>
CTensor<T>& CTensor<T>::operator=(const CTensor& other) {
    if (this != &other) {
        CTensor copy(other);
        *this = std::move(copy);
    }
    return *this;
}

template <class T>
CTensor<T>& CTensor<T>::operator=(CTensor&& other) noexcept {
    if (this != &other) {
        delete[] data;
        xSize = other.xSize;
        ySize = other.ySize;
        zSize = other.zSize;
        data = other.data;
        other.xSize = other.ySize = other.zSize = 0;
        other.data = nullptr;
    }
    return *this;
}

template <class T>
CTensor<T>::~CTensor() {
    delete[] data;
}

template <class T>
void CTensor<T>::adopt(int x, int y, int z, T* samples) {
    delete[] data;
    xSize = x;
    ySize = y;
    zSize = z;
    data = samples;
}

template <class T>
void CTensor<T>::setSize(int x, int y, int z) {
    adopt(x, y, z, allocateSamples<T>(x, y, z));
}

// Reading is offered for float tensors, which can hold the -1 that marks a
// sample missing from a truncated file.
template <>
void CTensor<float>::readFromPPM(const char* path) {
    netpbm::Image image = netpbm::read(path, netpbm::Accept::COLOR_OR_GREY);
    adopt(image.xSize, image.ySize, image.zSize, image.samples.release());
}

template <>
void CTensor<float>::readFromPGM(const char* path) {
    netpbm::Image image = netpbm::read(path, netpbm::Accept::GREY_ONLY);
    adopt(image.xSize, image.ySize, image.zSize, image.samples.release());
}

template <>
void CTensor<float>::readFromImage(const char* path) {
    if (image_file::compressedFormat(path) != image_file::Compressed::NONE) {
        const RgbImage image = image_file::readCompressed(path);
        const std::size_t plane = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
        float* samples = allocateSamples<float>(image.width, image.height, 3);
        for (std::size_t i = 0; i < plane; ++i)
            for (std::size_t c = 0; c < 3; ++c) samples[c * plane + i] = image.rgb[3 * i + c];
        adopt(image.width, image.height, 3, samples);
        return;
    }
    if (netpbm::formatFromExtension(path) == netpbm::Format::PPM)
        readFromPPM(path);
    else
        readFromPGM(path);
}

template <class T>
void CTensor<T>::writeToPPM(const char* path) const {
    requirePlanes(*this, path);
    netpbm::OutputFile out(path);
    out.text("P6 \n");
    out.text("%d %d \n255\n", xSize, ySize);
    // A tensor with fewer than three planes repeats its last one.
    const int planes[3] = {0, zSize > 1 ? 1 : zSize - 1, zSize > 2 ? 2 : zSize - 1};
    std::vector<unsigned char> row(static_cast<std::size_t>(xSize) * 3);
    for (int y = 0; y < ySize; ++y) {
        for (int x = 0; x < xSize; ++x)
            for (int c = 0; c < 3; ++c) row[static_cast<std::size_t>(x) * 3 + c] = fileByte((*this)(x, y, planes[c]));
        out.bytes(row.data(), row.size());
    }
    out.close();
}

template <class T>
void CTensor<T>::writeToPGM(const char* path) const {
    requirePlanes(*this, path);
    const int rows = static_cast<int>(std::floor(std::sqrt(static_cast<double>(zSize))));
    const int columns = static_cast<int>(std::ceil(static_cast<double>(zSize) / rows));
    netpbm::OutputFile out(path);
    out.text("P5 \n");
    out.text("%ld %ld \n255\n", static_cast<long>(columns) * xSize, static_cast<long>(rows) * ySize);
    std::vector<unsigned char> line(static_cast<std::size_t>(columns) * static_cast<std::size_t>(xSize));
    for (int r = 0; r < rows; ++r)
        for (int y = 0; y < ySize; ++y) {
            for (int c = 0; c < columns; ++c) {
                const int k = r * columns + c;
                unsigned char* tile = line.data() + static_cast<std::size_t>(c) * xSize;
                for (int x = 0; x < xSize; ++x) tile[x] = k < zSize ? fileByte((*this)(x, y, k)) : 0;
            }
            out.bytes(line.data(), line.size());
        }
    out.close();
}

template <class T>
void CTensor<T>::writeToImage(const char* path) const {
    if (netpbm::formatFromExtension(path) == netpbm::Format::PPM)
        writeToPPM(path);
    else
        writeToPGM(path);
}

template class CTensor<float>;
template class CTensor<unsigned char>;
