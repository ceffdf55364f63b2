// Writing result files so that a reader never sees half of one: each file is
// written under a partial name in its folder and renamed into place once
// complete.
#pragma once

#include <string>

#include "vela/tools.h"

// A name in the folder of `path` under which its contents are written before
// they are renamed into place.  It starts with "." so that no listing of
// results picks it up, and keeps the extension that chooses the file format.
std::string partialName(const std::string& path);

// Removes a file if it is there, ignoring any failure.
void removeQuietly(const std::string& path);

// Moves a finished file into place; the partial file is removed on failure,
// which throws std::runtime_error.
void renameIntoPlace(const std::string& partial, const std::string& path);

// Has `write` fill a partial file that then replaces `path`, so that `path`
// either keeps its old contents or holds the complete new file.
template <class Write>
void writeInPlace(const std::string& path, Write write) {
    const std::string partial = partialName(path);
    try {
        write(partial);
    } catch (...) {
        removeQuietly(partial);
        throw;
    }
    renameIntoPlace(partial, path);
}

// Saves a float4 rendering (host or device) as a PPM picture, in place.
void saveRendering(const vela::Array<float4, 2>& rendering, const std::string& path);
