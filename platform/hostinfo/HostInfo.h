// Host information from Linux sources (being written).
#pragma once
