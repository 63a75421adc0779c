// The service control manager over systemd.
#include "Scm.h"
