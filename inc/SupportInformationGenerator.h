// The support report (being written).
#pragma once
