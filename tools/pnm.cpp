#include "tools/pnm.h"

#include <cctype>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace demo {
namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Skips blanks and "#" comments before a header field.
void skipSpace(std::FILE* f) {
    int c;
    while ((c = std::getc(f)) != EOF) {
        if (c == '#') {
            while ((c = std::getc(f)) != EOF && c != '\n') {
            }
        } else if (!std::isspace(c)) {
            std::ungetc(c, f);
            return;
        }
    }
}

bool readNumber(std::FILE* f, int& value) {
    skipSpace(f);
    int c = std::getc(f);
    if (c == EOF || !std::isdigit(c)) return false;
    long v = 0;
    while (c != EOF && std::isdigit(c)) {
        v = v * 10 + (c - '0');
        if (v > 1000000) return false;
        c = std::getc(f);
    }
    if (c != EOF) std::ungetc(c, f);
    value = static_cast<int>(v);
    return true;
}

}  // namespace

Image readPNM(const std::string& path) {
    File f(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!f) throw std::runtime_error("cannot open " + path);
    char magic[2] = {0, 0};
    if (std::fread(magic, 1, 2, f.get()) != 2 || magic[0] != 'P' || (magic[1] != '5' && magic[1] != '6'))
        throw std::runtime_error(path + " is not a binary PPM or PGM file");
    int w = 0, h = 0, maxValue = 0;
    if (!readNumber(f.get(), w) || !readNumber(f.get(), h) || !readNumber(f.get(), maxValue) || w < 1 || h < 1 ||
        maxValue < 1 || maxValue > 255)
        throw std::runtime_error(path + " has an unreadable header");
    if (!std::isspace(std::getc(f.get()))) throw std::runtime_error(path + " has an unreadable header");
    Image image(w, h, magic[1] == '6' ? 3 : 1);
    if (std::fread(image.pixels.data(), 1, image.pixels.size(), f.get()) != image.pixels.size())
        throw std::runtime_error(path + " ends early");
    return image;
}

void writePNM(const Image& image, const std::string& path) {
    File f(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!f) throw std::runtime_error("cannot create " + path);
    std::fprintf(f.get(), "P%c\n%d %d\n255\n", image.channels == 3 ? '6' : '5', image.width, image.height);
    if (std::fwrite(image.pixels.data(), 1, image.pixels.size(), f.get()) != image.pixels.size() ||
        std::fflush(f.get()) != 0)
        throw std::runtime_error("cannot write " + path);
}

}  // namespace demo
