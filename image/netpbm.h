// Binary PPM ("P6") and PGM ("P5") files: the header reader shared by the
// image containers, the output file they write through, and the choice of
// format by file extension.
#pragma once

#include <cstdio>
#include <exception>
#include <memory>
#include <string>

// A file does not start with the magic number of the expected format.  Making
// one prints the reason on standard error.
class EInvalidFileFormat : public std::exception {
 public:
    explicit EInvalidFileFormat(const char* format);
    const char* what() const noexcept override;
};

namespace netpbm {

enum class Format { PPM, PGM };

// The format named by the text after the last "." of `path` (the whole path
// when it has no "."): "ppm"/"PPM" or "pgm"/"PGM".  Throws std::runtime_error
// "Image file format not supported" otherwise.
Format formatFromExtension(const std::string& path);

// Which magic numbers a reader takes.
enum class Accept {
    COLOR_OR_GREY,  // "P6" gives 3 planes, "P5" 1
    GREY_ONLY,      // "P5" only; the pixels start right after the height
};

// Planar samples 0 to 255 as floats (plane, then row, then column); samples
// past the end of the file are -1.
struct Image {
    int xSize = 0;
    int ySize = 0;
    int zSize = 0;
    std::unique_ptr<float[]> samples;
};

// Throws std::runtime_error when the file cannot be read or its header is
// truncated, has no width or height, or describes more pixels than the file
// has bytes; EInvalidFileFormat for a wrong magic number.
Image read(const char* path, Accept accept);

// A file being written.  Every failure, from creating the file to closing
// it, throws std::runtime_error naming the file.
class OutputFile {
 public:
    explicit OutputFile(const char* path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    void text(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void bytes(const unsigned char* p, std::size_t n);
    void close();

 private:
    [[noreturn]] void fail(const char* what);
    std::FILE* file_;
    std::string path_;
};

}  // namespace netpbm
