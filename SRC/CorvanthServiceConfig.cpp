// The service configurator.
#include "CorvanthServiceConfig.h"
