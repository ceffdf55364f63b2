#include "src/driver/config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>

const char* const kConfigFormatMessage = "Input Format- <i|f|c|s> <key> <value>, use # for comments";

int keyvalue::intValue() const {
    std::int32_t v;
    std::memcpy(&v, &number, sizeof v);
    return v;
}

float keyvalue::floatValue() const {
    float v;
    std::memcpy(&v, &number, sizeof v);
    return v;
}

char keyvalue::charValue() const { return static_cast<char>(number & 0xFFu); }

void keyvalue::setInt(int v) {
    const std::int32_t w = v;
    std::memcpy(&number, &w, sizeof number);
}

void keyvalue::setFloat(float v) { std::memcpy(&number, &v, sizeof number); }

void keyvalue::setChar(char c) { number = (number & ~0xFFu) | static_cast<unsigned char>(c); }

namespace {

// Ends a failed parse with its message.
bool fail(std::string& error, const std::string& path, const std::string& what) {
    error = "configuration file " + path + ": " + what;
    return false;
}

}  // namespace

bool parseConfigINI(const std::string& path, ConfigMap& config, std::string& error) {
    config.clear();
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) return fail(error, path, "is a folder");
    std::ifstream in(path);
    if (!in) return fail(error, path, "cannot be opened");
    return parseConfigStream(in, path, config, error);
}

bool parseConfigStream(std::istream& in, const std::string& path, ConfigMap& config, std::string& error) {
    config.clear();
    keyvalue scratch;
    int entries = 0;
    char type = 0;
    while (in >> type) {
        if (type == '#') {
            in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
            continue;
        }
        ++entries;
        const std::string where = "entry " + std::to_string(entries);
        std::string key;
        if (!(in >> key)) return fail(error, path, where + " has no key");
        scratch.type = type;
        scratch.key = key;
        bool ok = true;
        switch (type) {
            case 'i': {
                int v = 0;
                ok = static_cast<bool>(in >> v);
                if (ok) scratch.setInt(v);
                break;
            }
            case 'f': {
                float v = 0.0f;
                ok = static_cast<bool>(in >> v);
                if (ok) scratch.setFloat(v);
                break;
            }
            case 'c': {
                char v = 0;
                ok = static_cast<bool>(in >> v);
                if (ok) scratch.setChar(v);
                break;
            }
            case 's': {
                std::string v;
                ok = static_cast<bool>(in >> v);
                if (ok) scratch.text = v;
                break;
            }
            default:
                return fail(
                    error, path,
                    where + " (key \"" + key + "\") has the unknown type letter '" + std::string(1, type) + "'");
        }
        if (!ok)
            return fail(error, path,
                        where + " (key \"" + key + "\") has no readable value of type '" + std::string(1, type) + "'");
        config[key] = scratch;
    }
    // The loop ends when no type letter can be read: either the file is at
    // its end, or reading itself failed.
    if (in.bad() || !in.eof()) return fail(error, path, "could not be read to its end");
    return true;
}

void exitWithConfigError(const std::string& error) {
    std::cerr << error << std::endl;
    std::cout << kConfigFormatMessage << std::endl;
    std::exit(255);
}

ConfigMap loadConfigINI(const std::string& path) {
    ConfigMap config;
    std::string error;
    if (!parseConfigINI(path, config, error)) exitWithConfigError(error);
    return config;
}
