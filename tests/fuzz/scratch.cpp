#include "tests/fuzz/scratch.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace fuzz {

std::string writeScratch(const std::uint8_t* data, std::size_t size, const char* extension) {
    static const std::filesystem::path dir = std::filesystem::is_directory("/dev/shm")
                                                 ? std::filesystem::path("/dev/shm")
                                                 : std::filesystem::temp_directory_path();
    const std::string path = (dir / ("vela-fuzz-" + std::to_string(getpid()) + extension)).string();
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) throw std::logic_error("cannot write the scratch file " + path);
    const bool written = size == 0 || std::fwrite(data, 1, size, f) == size;
    std::fclose(f);
    if (!written) throw std::logic_error("cannot write " + path);
    return path;
}

}  // namespace fuzz
