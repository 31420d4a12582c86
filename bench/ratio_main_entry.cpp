// The main() of the benchmark programs that need no set-up of their own.
#include "ratio_main.h"

int main(int argc, char** argv) { return ambit_bench::RunWithRatios(argc, argv); }
