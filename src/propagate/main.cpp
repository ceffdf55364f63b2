#include "src/propagate/program.h"

int main(int argc, char** argv) { return densesegPropagate(argc, argv); }
