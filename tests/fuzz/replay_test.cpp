#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/harness.h"

namespace {

namespace fs = std::filesystem;

using Reader = void (*)(const std::uint8_t*, std::size_t);

// Runs every kept input of one reader; the sanitizer build catches what a
// plain build would let pass.
void replay(const std::string& reader, Reader read) {
    int inputs = 0;
    for (const char* kind : {"corpus", "regressions"}) {
        const fs::path dir = fs::path(VELA_FUZZ_DIR) / kind / reader;
        if (!fs::is_directory(dir)) continue;
        for (const auto& entry : fs::directory_iterator(dir)) {
            std::ifstream in(entry.path(), std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            SCOPED_TRACE(entry.path().string());
            EXPECT_NO_THROW(read(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
            ++inputs;
        }
    }
    EXPECT_GT(inputs, 0) << "no kept inputs for " << reader;
}

TEST(FuzzReplay, ImageReaders) { replay("image", fuzz::readImage); }
TEST(FuzzReplay, TrackReader) { replay("tracks", fuzz::readTracks); }
TEST(FuzzReplay, ConfigReader) { replay("config", fuzz::readConfig); }
TEST(FuzzReplay, PngReader) { replay("png", fuzz::readPng); }
TEST(FuzzReplay, JpegReader) { replay("jpeg", fuzz::readJpeg); }

}  // namespace
