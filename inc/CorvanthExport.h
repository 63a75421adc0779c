// The one export macro of libCorvanthUtil. The library is built with hidden
// visibility, so only what carries CORVANTH_EXPORT is part of its interface.
#pragma once

#define CORVANTH_EXPORT __attribute__((visibility("default")))
