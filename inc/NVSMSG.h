// The local message transport between processes (being written).
#pragma once

#include "WinMsg.h"
