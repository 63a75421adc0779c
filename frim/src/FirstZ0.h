// In-place storage: raw bytes aligned for a value that is built into them
// explicitly. The alignment is checked once per use of the address; with
// alignas it always holds, and a failure would be reported under "FirstZ0".
#pragma once

#include <cstddef>
#include <cstdint>

#include "FrimCoreError.h"

template <std::size_t Size, std::size_t Alignment>
class ecAlignedStorage {
 public:
  constexpr ecAlignedStorage() noexcept = default;
  void* fAddress() noexcept {
    if (reinterpret_cast<std::uintptr_t>(mBytes) % Alignment != 0) {
      n_debug::nCoreError::gPosition(
          true,
          "Alignment failure! If VC12 is available, need to replace this code with standard alignment "
          "std::aligned_storage<rk_size, rk_alignment>",
          false, false, "CorvanthUtil", "FirstZ0", __LINE__);
    }
    return mBytes;
  }
  void const* fAddress() const noexcept { return mBytes; }

 private:
  alignas(Alignment) unsigned char mBytes[Size] = {};
};
