#include "src/driver/file_names.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <system_error>

namespace utility {

std::vector<std::string> getDFE(std::string path) {
    // Positions are 32-bit unsigned on purpose: "not found" plus one wraps to
    // 0, so a path without "/" has an empty directory and a name without "."
    // is its own extension.
    const std::uint32_t slash = static_cast<std::uint32_t>(path.rfind('/'));
    const std::string directory = path.substr(0, static_cast<std::uint32_t>(slash + 1));
    const std::string rest = path.substr(static_cast<std::uint32_t>(slash + 1));
    const std::uint32_t dot = static_cast<std::uint32_t>(rest.rfind('.'));
    const std::string name = rest.substr(0, dot);
    const std::string extension = rest.substr(static_cast<std::uint32_t>(dot + 1));
    return {directory, name, extension};
}

std::vector<std::string> dir(std::string pattern) {
    const std::string directory = getDFE(pattern)[0];
    const std::string namePattern = pattern.substr(directory.size());
    std::vector<std::string> names;
    if (namePattern.empty()) return names;

    namespace fs = std::filesystem;
    std::error_code ec;
    fs::directory_iterator it(directory.empty() ? fs::path(".") : fs::path(directory), ec);
    if (ec) return names;
    for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (::fnmatch(namePattern.c_str(), name.c_str(), FNM_PERIOD) != 0) continue;
        std::error_code typeError;
        if (it->is_directory(typeError)) continue;
        names.push_back(name);
    }
    // std::string compares bytes as unsigned values.
    std::sort(names.begin(), names.end());
    for (std::string& name : names) name = directory + name;
    return names;
}

}  // namespace utility
