#include "image/netpbm.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

EInvalidFileFormat::EInvalidFileFormat(const char* format) {
    std::fprintf(stderr, "Exception EInvalidFileFormat: File is not in %s format\n", format);
}

const char* EInvalidFileFormat::what() const noexcept {
    return "EInvalidFileFormat: file is not in the expected format";
}

namespace netpbm {

Format formatFromExtension(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const std::string ext = dot == std::string::npos ? path : path.substr(dot + 1);
    if (ext == "ppm" || ext == "PPM") return Format::PPM;
    if (ext == "pgm" || ext == "PGM") return Format::PGM;
    throw std::runtime_error("Image file format not supported");
}

namespace {

std::vector<unsigned char> readWholeFile(const char* path) {
    std::FILE* f = std::fopen(path, "rb");
    if (f == nullptr) {
        std::fprintf(stderr, "File not found: %s\n", path);
        throw std::runtime_error(std::string("File not found: ") + path);
    }
    std::vector<unsigned char> bytes;
    unsigned char chunk[65536];
    std::size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
    const bool failed = std::ferror(f) != 0;
    const int error = errno;
    std::fclose(f);
    if (failed) throw std::runtime_error(std::string(path) + ": cannot read the file: " + std::strerror(error));
    return bytes;
}

bool isDigit(int c) { return c >= '0' && c <= '9'; }
bool isBlankOrNewline(int c) { return c == ' ' || c == '\n'; }

// Walks the header one byte at a time; `c` is the byte last read.
class HeaderReader {
 public:
    HeaderReader(const std::vector<unsigned char>& bytes, const char* path) : bytes_(bytes), path_(path) {}

    int next() {
        c = pos_ < bytes_.size() ? bytes_[pos_++] : EOF;
        return c;
    }
    // Reads bytes until `stop` holds for the last one; end of file is a
    // truncated header.
    template <class Stop>
    void readUntil(Stop stop) {
        while (!stop(c)) {
            if (c == EOF) fail("the image header is truncated");
            next();
        }
    }
    // The number starting at the current byte, which must be a digit.
    int number(const char* what) {
        if (!isDigit(c)) {
            if (c == EOF) fail("the image header is truncated");
            fail((std::string("the image header has no ") + what).c_str());
        }
        std::uint64_t value = 0;
        for (; isDigit(c); next()) {
            value = value * 10 + static_cast<std::uint64_t>(c - '0');
            if (value > bytes_.size() || value > INT_MAX)
                fail((std::string("the image ") + what + " is more than the file can hold").c_str());
        }
        return static_cast<int>(value);
    }
    std::size_t position() const { return pos_; }
    [[noreturn]] void fail(const char* what) const { throw std::runtime_error(std::string(path_) + ": " + what); }

    int c = EOF;

 private:
    const std::vector<unsigned char>& bytes_;
    const char* path_;
    std::size_t pos_ = 0;
};

}  // namespace

Image read(const char* path, Accept accept) {
    const std::vector<unsigned char> bytes = readWholeFile(path);
    HeaderReader h(bytes, path);
    const char* formatName = accept == Accept::GREY_ONLY ? "PGM" : "PPM";

    // Magic number: everything up to the first "P" is skipped.
    h.next();
    h.readUntil([](int c) { return c == 'P'; });
    h.next();
    if (h.c == EOF) h.fail("the image header is truncated");
    Image image;
    if (h.c == '5')
        image.zSize = 1;
    else if (h.c == '6' && accept == Accept::COLOR_OR_GREY)
        image.zSize = 3;
    else
        throw EInvalidFileFormat(formatName);

    h.readUntil(isBlankOrNewline);
    // Comment lines are recognised only here, right after the magic number.
    h.next();
    while (h.c == '#') {
        h.readUntil([](int c) { return c == '\n'; });
        h.next();
    }
    while (h.c == '\n') h.next();
    image.xSize = h.number("width");
    h.readUntil(isDigit);
    image.ySize = h.number("height");
    h.readUntil(isBlankOrNewline);
    if (accept == Accept::COLOR_OR_GREY) {
        // The maximum value is skipped: every sample is one byte.
        h.readUntil(isDigit);
        while (isDigit(h.c)) h.next();
        h.readUntil([](int c) { return c == '\n'; });
    }
    // A grey-only read starts its pixels right after the blank or newline that
    // follows the height, so a maximum value there is read as pixels.

    if (image.xSize == 0 || image.ySize == 0) h.fail("the image width and height must be at least 1");
    const std::uint64_t pixels = static_cast<std::uint64_t>(image.xSize) * static_cast<std::uint64_t>(image.ySize);
    if (pixels > bytes.size()) h.fail("the image size is more than the file can hold");

    const std::size_t planeSize = static_cast<std::size_t>(pixels);
    image.samples.reset(new float[planeSize * static_cast<std::size_t>(image.zSize)]);
    std::size_t pos = h.position();
    const auto sample = [&]() -> float { return pos < bytes.size() ? static_cast<float>(bytes[pos++]) : -1.0f; };
    for (std::size_t i = 0; i < planeSize; ++i)
        for (int z = 0; z < image.zSize; ++z) image.samples[static_cast<std::size_t>(z) * planeSize + i] = sample();
    return image;
}

OutputFile::OutputFile(const char* path) : file_(std::fopen(path, "wb")), path_(path) {
    if (file_ == nullptr) fail("cannot create the file");
}

OutputFile::~OutputFile() {
    if (file_ != nullptr) std::fclose(file_);
}

void OutputFile::text(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const int n = std::vfprintf(file_, format, args);
    va_end(args);
    if (n < 0) fail("cannot write the file");
}

void OutputFile::bytes(const unsigned char* p, std::size_t n) {
    if (std::fwrite(p, 1, n, file_) != n) fail("cannot write the file");
}

void OutputFile::close() {
    std::FILE* f = file_;
    if (f == nullptr) return;
    file_ = nullptr;
    if (std::fclose(f) != 0) fail("cannot write the file");
}

void OutputFile::fail(const char* what) { throw std::runtime_error(path_ + ": " + what + ": " + std::strerror(errno)); }

}  // namespace netpbm
