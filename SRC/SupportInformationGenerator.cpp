// The support report.
#include "SupportInformationGenerator.h"
