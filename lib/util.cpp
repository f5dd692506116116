// util: process-level services (see util.h).
#include "util.h"

volatile int g_quit = 0;
volatile int g_goodbye = 0;
volatile int g_hup = 0;
volatile int g_usr1 = 0;
volatile int g_tdbg = 0;
volatile int g_sigctx = 0;
