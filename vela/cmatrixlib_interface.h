// Saving vela arrays, on the host or a device, as PPM or PGM images.
#pragma once

#include <string>

#include "vela/tools.h"

namespace vela {

// A colour image from an array of three planes (red, green, blue), written
// by the extension of `path` (".ppm" or ".pgm", the latter as a mosaic of the
// planes).  With `normalize` every sample is multiplied by 255 first; for
// bytes that product wraps (2 becomes 254).  Samples are written as the low
// byte of their value truncated toward zero, so keep them within 0 to 255.
void saveImage(const Array<float, 3>& a, const std::string& path, bool normalize);
void saveImage(const Array<unsigned char, 3>& a, const std::string& path, bool normalize);

// A grey image from a 2-D array; only ".pgm" paths.
void saveImage(const Array<float, 2>& a, const std::string& path, bool normalize);

}  // namespace vela
