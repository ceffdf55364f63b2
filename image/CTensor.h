// A host image of zSize planes of xSize x ySize samples, planar: sample
// (x, y, z) is data[(z * ySize + y) * xSize + x].  Colour images have the
// planes red, green and blue; grey images one plane.  Samples keep the values
// of the file (0 to 255), unscaled.
//
// Files are binary PPM ("P6") and PGM ("P5").  Writing keeps the low byte of
// each sample truncated toward zero: 256 is written as 0 and -1 as 255.
// Reading (float tensors only) stores -1 for samples past the end of a
// truncated file.
#pragma once

#include <cstddef>

#include "image/netpbm.h"

template <class T>
class CTensor {
 public:
    CTensor();
    // Sizes must not be negative; the samples start at zero.
    CTensor(int xSize, int ySize, int zSize);
    CTensor(const CTensor& other);
    CTensor(CTensor&& other) noexcept;
    CTensor& operator=(const CTensor& other);
    CTensor& operator=(CTensor&& other) noexcept;
    virtual ~CTensor();

    // Reallocates for the new sizes; the samples start at zero.
    void setSize(int xSize, int ySize, int zSize);
    std::size_t size() const {
        return static_cast<std::size_t>(xSize) * static_cast<std::size_t>(ySize) * static_cast<std::size_t>(zSize);
    }
    T& operator()(int x, int y, int z) { return data[(z * ySize + y) * xSize + x]; }
    const T& operator()(int x, int y, int z) const { return data[(z * ySize + y) * xSize + x]; }

    // "P6" gives three planes, "P5" one.  A missing file prints "File not
    // found: <path>" on standard error and throws.
    void readFromPPM(const char* path);
    // "P5" only.  The pixels start right after the height, so the maximum
    // value line is read as the first pixels: the image comes out shifted.
    void readFromPGM(const char* path);
    // By extension: ".ppm"/".PPM", ".pgm"/".PGM", or a PNG (".png"/".PNG") or
    // JPEG (".jpg"/".JPG"/".jpeg"/".JPEG") frame, which always gives three
    // planes (see image/png_file.h and image/jpeg_file.h).
    void readFromImage(const char* path);

    // Planes 0 to 2 as "P6".
    void writeToPPM(const char* path) const;
    // All planes as one "P5" mosaic of floor(sqrt(zSize)) rows of tiles; tiles
    // past the last plane are black.
    void writeToPGM(const char* path) const;
    void writeToImage(const char* path) const;

    int xSize;
    int ySize;
    int zSize;
    T* data;  // owned; null when empty

 private:
    void adopt(int x, int y, int z, T* samples);
};
