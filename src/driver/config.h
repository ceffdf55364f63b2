// The configuration file: one typed key/value record per line,
//
//     <type letter> <key> <value>      # type letters i, f, c, s
//
// read whole into an ordered map.  "#" starts a comment that runs to the end of
// the line, at the start of a line or after a complete entry.
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <string>

// One record of the configuration map.  The reader keeps one scratch record
// for the whole file and stores all of it on every line, so a record carries
// the number or text of the most recent earlier line of the other kind; only
// the field of the record's own kind is meaningful.
struct keyvalue {
    char type = 0;  // 'i', 'f', 'c' or 's'; 0 for a record made by a lookup
    std::string key;
    // One 32-bit slot: an int for 'i', the bits of a float for 'f', a
    // character in the lowest byte for 'c' (the other bytes kept).
    std::uint32_t number = 0;
    std::string text;

    int intValue() const;
    float floatValue() const;
    char charValue() const;
    void setInt(int v);
    void setFloat(float v);
    void setChar(char c);
};

using ConfigMap = std::map<std::string, keyvalue>;

// The line printed when a configuration file cannot be read.
extern const char* const kConfigFormatMessage;

// Reads the whole file into `config`.  False, with `error` saying what went
// wrong and where, for an unknown type letter, a value that does not parse,
// an entry cut short by the end of the file, or a file that cannot be opened
// or read; `config` then holds the entries before the fault.
bool parseConfigINI(const std::string& path, ConfigMap& config, std::string& error);

// The same from a stream; `path` names it in messages.
bool parseConfigStream(std::istream& in, const std::string& path, ConfigMap& config, std::string& error);

// Ends the process as a configuration that cannot be used does: `error` on
// standard error, kConfigFormatMessage on standard output, exit status 255.
[[noreturn]] void exitWithConfigError(const std::string& error);

// Reads the whole file.  Where parseConfigINI fails, prints its error on
// standard error and kConfigFormatMessage on standard output, and ends the
// process with exit status 255.
ConfigMap loadConfigINI(const std::string& path);
