// Host information from Linux sources.
#include "HostInfo.h"
