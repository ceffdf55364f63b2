// File names and folder listings for the driver.
#pragma once

#include <string>
#include <vector>

namespace utility {

// Splits a path into exactly three parts: the directory (up to and including
// the last "/", else empty), the file name without its extension, and the
// extension (after the last "." of the file name).  A file name without a "."
// gives itself as both name and extension: "data/README" gives "data/",
// "README", "README".
std::vector<std::string> getDFE(std::string path);

// The files that match a wildcard pattern, sorted by name in byte order, each
// with the pattern's directory part in front ("frames/*.ppm" gives
// "frames/a.ppm", ...).  The file-name part may hold the shell's wildcards
// "*", "?" and "[...]"; as in the shell, they match no leading "." unless the
// pattern starts with one.  The directory part is taken literally (no
// wildcards there).  Folders are not listed; a missing folder or no match
// gives an empty list.
std::vector<std::string> dir(std::string pattern);

}  // namespace utility
