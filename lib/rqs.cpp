// rqs: the reactor (see rqs.h).
#include "rqs.h"

namespace {
timespec s_itime;  // the loop time
}

timespec rqs_now() { return s_itime; }
timespec *rqs_now_ref() { return &s_itime; }
