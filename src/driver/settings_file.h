// The segmentation settings as the configuration file sets them.
//
// "lambda" and "maxiter" are read as they always were: the record's number
// slot as a float and as an int, whatever the type letter, 0 when absent.
// Every other key of settingKeys() is optional and checked: an absent key
// keeps its default, so a file without them segments exactly as before, and a
// value of the wrong type or out of range is refused with a line naming the
// key.
#pragma once

#include <string>

#include "src/driver/config.h"
#include "src/settings.h"

// Reads the settings from `config` into `settings`.  False, with `error`
// naming the key and what it takes, on the first bad value.
bool readSegmentationSettings(ConfigMap& config, SegmentationSettings& settings, std::string& error);

// The checked readers behind it, for other optional keys: an absent key
// leaves `value` as it is; true when the key is absent or valid.
bool readIntKey(ConfigMap& config, const std::string& key, int min, int max, int& value, std::string& error);
bool readFloatKey(ConfigMap& config, const std::string& key, float min, float max, float& value, std::string& error);
