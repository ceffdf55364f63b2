#include "src/driver/result_files.h"

#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "vela/algorithms/conversion.h"
#include "vela/cmatrixlib_interface.h"

namespace fs = std::filesystem;

std::string partialName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return folder + ".partial-" + std::to_string(::getpid()) + "-" + name;
}

void removeQuietly(const std::string& path) {
    std::error_code ec;
    fs::remove(path, ec);
}

void renameIntoPlace(const std::string& partial, const std::string& path) {
    std::error_code ec;
    fs::rename(partial, path, ec);
    if (ec) {
        removeQuietly(partial);
        throw std::runtime_error("cannot move the result into place as " + path);
    }
}

namespace {

void saveImageInPlace(const vela::Array<float, 3>& image, const std::string& path) {
    writeInPlace(path, [&](const std::string& partial) { vela::saveImage(image, partial, false); });
}

}  // namespace

void saveRendering(const vela::Array<float4, 2>& rendering, const std::string& path) {
    // Three float planes in the rendering's own memory space.
    const uint4 extents = make_uint4(rendering.extents.x, rendering.extents.y, 3, 1);
    vela::ScopedArray<float, 3> planes(vela::internal::decreaseArrayDimension<float, 4, 3>(
        rendering.device == vela::kHostDevice ? vela::mallocHostArray<float>(extents, vela::LINEAR_LAYOUT)
                                              : vela::mallocDeviceArray<float>(extents, vela::PITCHED_LAYOUT)));
    vela::convert(planes.a, rendering, nullptr);
    saveImageInPlace(planes.a, path);
}
