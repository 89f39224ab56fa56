#include "cli.h"

int main(int argc, char **argv) { return talvex::sim::cli_main(argc, argv); }
