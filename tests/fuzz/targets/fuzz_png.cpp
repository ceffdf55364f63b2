#include "tests/fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, unsigned long size) {
    fuzz::readPng(data, size);
    return 0;
}
