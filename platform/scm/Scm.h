// The service control manager over systemd (being written).
#pragma once
