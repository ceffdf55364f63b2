#include "src/driver/driver.h"

int main(int argc, char** argv) { return denseseg(argc, argv); }
