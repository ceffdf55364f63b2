#include "image/CMatrix.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "vela/algorithms/scalar_cast.h"

namespace {

template <class T>
T* allocateSamples(int x, int y) {
    if (x < 0 || y < 0) throw std::runtime_error("CMatrix: sizes must not be negative");
    const std::size_t n = static_cast<std::size_t>(x) * static_cast<std::size_t>(y);
    return n == 0 ? nullptr : new T[n]();
}

}  // namespace

template <class T>
CMatrix<T>::CMatrix() : xSize(0), ySize(0), data(nullptr) {}

template <class T>
CMatrix<T>::CMatrix(int x, int y) : xSize(x), ySize(y), data(allocateSamples<T>(x, y)) {}

template <class T>
CMatrix<T>::CMatrix(const CMatrix& other) : CMatrix(other.xSize, other.ySize) {
    std::copy(other.data, other.data + size(), data);
}

template <class T>
CMatrix<T>::CMatrix(CMatrix&& other) noexcept : xSize(other.xSize), ySize(other.ySize), data(other.data) {
    other.xSize = other.ySize = 0;
    other.data = nullptr;
}

template <class T>
CMatrix<T>& CMatrix<T>::operator=(const CMatrix& other) {
    if (this != &other) {
        CMatrix copy(other);
        *this = std::move(copy);
    }
    return *this;
}

template <class T>
CMatrix<T>& CMatrix<T>::operator=(CMatrix&& other) noexcept {
    if (this != &other) {
        delete[] data;
        xSize = other.xSize;
        ySize = other.ySize;
        data = other.data;
        other.xSize = other.ySize = 0;
        other.data = nullptr;
    }
    return *this;
}

template <class T>
CMatrix<T>::~CMatrix() {
    delete[] data;
}

template <class T>
void CMatrix<T>::writeToPGM(const char* path) const {
    netpbm::OutputFile out(path);
    out.text("P5\n%d %d\n255\n", xSize, ySize);
    std::vector<unsigned char> bytes(size());
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = vela::internal::lowByte(data[i]);
    out.bytes(bytes.data(), bytes.size());
    out.close();
}

template <class T>
void CMatrix<T>::writeToImage(const char* path) const {
    if (netpbm::formatFromExtension(path) != netpbm::Format::PGM)
        throw std::runtime_error("Image file format not supported");
    writeToPGM(path);
}

template class CMatrix<float>;
