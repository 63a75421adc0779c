// File associations (being written).
#pragma once
