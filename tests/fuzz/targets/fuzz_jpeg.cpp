#include "tests/fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, unsigned long size) {
    fuzz::readJpeg(data, size);
    return 0;
}
