#include "src/settings.h"

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

bool readSegmentationSettings(ConfigMap& config, SegmentationSettings& settings, std::string& error) {
    SegmentationSettings s;
    // As they always were read: unchecked, whatever the type letter.
    s.lambda = config["lambda"].floatValue();
    s.maxiter = config["maxiter"].intValue();

    if (present(config, "dataTerm")) {
        const keyvalue& kv = config["dataTerm"];
        if (kv.type == 's' && kv.text == "seeds")
            s.dataTerm = DataTerm::SEEDS;
        else if (kv.type == 's' && kv.text == "walker")
            s.dataTerm = DataTerm::WALKER;
        else
            return refuse(kv, "\"s dataTerm seeds\" or \"s dataTerm walker\"", error);
    }
    if (present(config, "edgeWeights")) {
        const keyvalue& kv = config["edgeWeights"];
        if (kv.type == 's' && kv.text == "diffusivity")
            s.edgeWeights = EdgeWeights::DIFFUSIVITY;
        else if (kv.type == 's' && kv.text == "contrast")
            s.edgeWeights = EdgeWeights::CONTRAST;
        else
            return refuse(kv, "\"s edgeWeights diffusivity\" or \"s edgeWeights contrast\"", error);
    }
    const bool ok = readIntKey(config, "model", 0, 4, s.model, error) &&
                    readIntKey(config, "diffusivity", 0, 1, s.diffusivity, error) &&
                    readFloatKey(config, "alpha", 1e-6f, 1e6f, s.alpha, error) &&
                    readFloatKey(config, "dataWeight", 0.0f, 1e6f, s.dataWeight, error) &&
                    readFloatKey(config, "walkerBeta", 0.0f, 1e6f, s.walkerBeta, error) &&
                    readIntKey(config, "walkerIterations", 0, 100000, s.walkerIterations, error) &&
                    readFloatKey(config, "walkerTolerance", 0.0f, 1.0f, s.walkerTolerance, error) &&
                    readIntKey(config, "seedCheckRadius", 0, 100, s.seedCheckRadius, error) &&
                    readFloatKey(config, "seedCheckShare", 0.0f, 1.0f, s.seedCheckShare, error) &&
                    readFloatKey(config, "seedCheckBeta", 0.0f, 1e6f, s.seedCheckBeta, error) &&
                    readFloatKey(config, "seedCheckFit", 0.0f, 1.0f, s.seedCheckFit, error) &&
                    readFloatKey(config, "solverTolerance", 0.0f, 1.0f, s.solverTolerance, error) &&
                    readFloatKey(config, "colourWeight", 0.0f, 1e6f, s.colourWeight, error) &&
                    readFloatKey(config, "lambdaSeedDensity", 0.0f, 1.0f, s.lambdaSeedDensity, error) &&
                    readIntKey(config, "temporal", 0, 1, s.temporal, error) &&
                    readFloatKey(config, "temporalWeight", 0.0f, 1e6f, s.temporalWeight, error) &&
                    readFloatKey(config, "temporalMotionWeight", 0.0f, 1e6f, s.temporalMotionWeight, error) &&
                    readFloatKey(config, "temporalWalkerTolerance", 0.0f, 1.0f, s.temporalWalkerTolerance, error) &&
                    readIntKey(config, "temporalWalkerRadius", 0, 100, s.temporalWalkerRadius, error) &&
                    readIntKey(config, "costFilterRadius", 0, 100, s.costFilterRadius, error) &&
                    readFloatKey(config, "costFilterEpsilon", 1e-8f, 1.0f, s.costFilterEpsilon, error);
    if (!ok) return false;
    if (s.edgeWeights == EdgeWeights::CONTRAST && s.model != 1)
        return refuse(config["edgeWeights"], "\"s edgeWeights contrast\" with model 1 (\"i model 1\")", error);
    settings = s;
    return true;
}
