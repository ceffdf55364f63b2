// A host image of one plane, row-major: sample (x, y) is data[y * xSize + x].
#pragma once

#include <cstddef>

#include "image/netpbm.h"

template <class T>
class CMatrix {
 public:
    CMatrix();
    // Sizes must not be negative; the samples start at zero.
    CMatrix(int xSize, int ySize);
    CMatrix(const CMatrix& other);
    CMatrix(CMatrix&& other) noexcept;
    CMatrix& operator=(const CMatrix& other);
    CMatrix& operator=(CMatrix&& other) noexcept;
    virtual ~CMatrix();

    std::size_t size() const { return static_cast<std::size_t>(xSize) * static_cast<std::size_t>(ySize); }
    T& operator()(int x, int y) { return data[y * xSize + x]; }
    const T& operator()(int x, int y) const { return data[y * xSize + x]; }

    // "P5", each sample's low byte after truncation toward zero.
    void writeToPGM(const char* path) const;
    // Only ".pgm"/".PGM" paths.
    void writeToImage(const char* path) const;

    int xSize;
    int ySize;
    T* data;  // owned; null when empty
};
