#include "src/driver/settings_file.h"

#include <cmath>
#include <sstream>

namespace {

bool present(ConfigMap& config, const std::string& key) { return config.find(key) != config.end(); }

// The line as the file gave it, for messages.
std::string entryText(const keyvalue& kv) {
    std::ostringstream s;
    s << kv.type << ' ' << kv.key << ' ';
    switch (kv.type) {
        case 'i':
            s << kv.intValue();
            break;
        case 'f':
            s << kv.floatValue();
            break;
        case 'c':
            s << kv.charValue();
            break;
        default:
            s << kv.text;
    }
    return s.str();
}

bool refuse(const keyvalue& kv, const std::string& expected, std::string& error) {
    error = "configuration key \"" + kv.key + "\": expected " + expected + ", got \"" + entryText(kv) + "\"";
    return false;
}

}  // namespace

bool readIntKey(ConfigMap& config, const std::string& key, int min, int max, int& value, std::string& error) {
    if (!present(config, key)) return true;
    const keyvalue& kv = config[key];
    const std::string expected =
        "\"i " + key + " <n>\" with n from " + std::to_string(min) + " to " + std::to_string(max);
    if (kv.type != 'i' || kv.intValue() < min || kv.intValue() > max) return refuse(kv, expected, error);
    value = kv.intValue();
    return true;
}

bool readFloatKey(ConfigMap& config, const std::string& key, float min, float max, float& value, std::string& error) {
    if (!present(config, key)) return true;
    const keyvalue& kv = config[key];
    std::ostringstream expected;
    expected << "\"f " << key << " <x>\" with x from " << min << " to " << max;
    const float v = kv.floatValue();
    if (kv.type != 'f' || !std::isfinite(v) || v < min || v > max) return refuse(kv, expected.str(), error);
    value = v;
    return true;
}

namespace {

// A key whose value is one of `words`: the enum value at the word's position.
template <class Enum>
bool readWordKey(ConfigMap& config, const SettingKey& entry, Enum& value, std::string& error) {
    if (!present(config, entry.key)) return true;
    const keyvalue& kv = config[entry.key];
    std::string expected;
    for (std::size_t i = 0; i < entry.words.size(); ++i) {
        if (kv.type == 's' && kv.text == entry.words[i]) {
            value = static_cast<Enum>(i);
            return true;
        }
        expected += (i > 0 ? " or \"s " : "\"s ") + std::string(entry.key) + " " + entry.words[i] + "\"";
    }
    return refuse(kv, expected, error);
}

bool readKey(ConfigMap& config, const SettingKey& entry, SegmentationSettings& s, std::string& error) {
    using S = SegmentationSettings;
    if (const auto* m = std::get_if<int S::*>(&entry.member))
        return readIntKey(config, entry.key, static_cast<int>(entry.min), static_cast<int>(entry.max), s.**m, error);
    if (const auto* m = std::get_if<float S::*>(&entry.member))
        return readFloatKey(config, entry.key, static_cast<float>(entry.min), static_cast<float>(entry.max), s.**m,
                            error);
    if (const auto* m = std::get_if<DataTerm S::*>(&entry.member)) return readWordKey(config, entry, s.**m, error);
    return readWordKey(config, entry, s.*std::get<EdgeWeights S::*>(entry.member), error);
}

}  // namespace

bool readSegmentationSettings(ConfigMap& config, SegmentationSettings& settings, std::string& error) {
    SegmentationSettings s;
    // As they always were read: unchecked, whatever the type letter.
    s.lambda = config["lambda"].floatValue();
    s.maxiter = config["maxiter"].intValue();
    for (const SettingKey& entry : settingKeys())
        if (!entry.unchecked && !readKey(config, entry, s, error)) return false;
    if (s.edgeWeights == EdgeWeights::CONTRAST && s.model != 1)
        return refuse(config["edgeWeights"], "\"s edgeWeights contrast\" with model 1 (\"i model 1\")", error);
    settings = s;
    return true;
}
