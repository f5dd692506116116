// trov-order: the operator's command for ordering downloads from the daemon;
// everything but the entry point lives in ordcli, where the tests reach it.
#include "ordcli.h"

int main(int argc, char **argv) { return ordcli_main(argc, argv); }
