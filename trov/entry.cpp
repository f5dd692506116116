// The daemon's entry point; everything else lives in the library.
#include "main.h"

int main(int argc, char **argv) { return trov_main(argc, argv); }
