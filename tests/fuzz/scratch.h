// The readers take paths, so every fuzz input goes through one scratch file
// per process, on a memory file system where there is one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

// Writes the bytes to this process's scratch file with the given extension
// and returns its path.
std::string writeScratch(const std::uint8_t* data, std::size_t size, const char* extension);

}  // namespace fuzz
