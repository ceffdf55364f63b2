#include <malloc.h>

#include "src/propagate/program.h"

int main(int argc, char** argv) {
    // A long video allocates and frees the same frame-sized arrays again and
    // again.  A fixed threshold keeps them mapped and unmapped whole; glibc's
    // own raises it after each free, and the heap then grows over the run.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    return densesegPropagate(argc, argv);
}
