#include <stdexcept>
#include <string>

#include "src/driver/config.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/scratch.h"

namespace fuzz {

void readConfig(const std::uint8_t* data, std::size_t size) {
    const std::string path = writeScratch(data, size, ".cfg");
    ConfigMap config;
    std::string error;
    if (parseConfigINI(path, config, error)) {
        for (const auto& entry : config)
            if (entry.first != entry.second.key) throw std::logic_error("record stored under another key");
    }
}

}  // namespace fuzz
