// The local message transport.
#include "NVSMSG.h"
