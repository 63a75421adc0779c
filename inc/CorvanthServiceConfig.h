// The service configurator (being written).
#pragma once
