// One entry per file reader that takes input from elsewhere: each feeds the
// bytes to the reader as a file would and checks only that it returns or
// throws one of the reader's documented errors.  Shared by the libFuzzer
// targets and the replay test that runs the kept inputs in every build.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

void readImage(const std::uint8_t* data, std::size_t size);
void readTracks(const std::uint8_t* data, std::size_t size);
void readConfig(const std::uint8_t* data, std::size_t size);
// PNG and JPEG frames, by the extension of the scratch file; PNG files as
// label maps too.
void readPng(const std::uint8_t* data, std::size_t size);
void readJpeg(const std::uint8_t* data, std::size_t size);

}  // namespace fuzz
