// Scratch folders and files for the tests.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace testsupport {

// A fresh folder under the system's temporary folder, removed with the object.
class ScratchFolder {
 public:
    explicit ScratchFolder(const std::string& name) {
        std::string p = (std::filesystem::temp_directory_path() / ("denseseg-" + name + "-XXXXXX")).string();
        if (::mkdtemp(p.data()) == nullptr) throw std::runtime_error("cannot create " + p);
        path_ = p;
    }
    ~ScratchFolder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ScratchFolder(const ScratchFolder&) = delete;

    // The folder, without a trailing "/".
    std::string str() const { return path_.string(); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

    // Writes `contents` to `name` (folders created) and returns its path.
    std::string write(const std::string& name, const std::string& contents) const {
        const std::filesystem::path p = path_ / name;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << contents;
        return p.string();
    }
    std::string write(const std::string& name, const std::vector<std::uint8_t>& bytes) const {
        return write(name, std::string(bytes.begin(), bytes.end()));
    }

 private:
    std::filesystem::path path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace testsupport
