// The local message transport; the record is described in NVSMSG.h. The
// checks cite their historic positions in this unit, so each passes its line
// as data.
#include "NVSMSG.h"

#include <cstdint>
#include <cstring>
#include <exception>

#include "Log.dec.h"
#include "Nvspackmsg.h"

// Not exported: the library's own callers of the queue (none today) and a
// program built with this unit's source use them.
COPYDATASTRUCT* NVSTakeMsg(HWND window, unsigned int unused);
int NVSPostMsg(unsigned int message, HWND window);

namespace {

constexpr char kSource[] = "NVSMSG";
constexpr UINT kSendTimeoutMilliseconds = 30000;
constexpr UINT kLookOnly = PM_NOREMOVE | PM_NOYIELD;
constexpr UINT kTakeOut = PM_REMOVE | PM_NOYIELD;
constexpr std::uint32_t kHeaderSize = sizeof(c_MessageHeader);

}  // namespace

int NVSSendMsg(COPYDATASTRUCT* record, HWND window, unsigned int code) {
  if (window == nullptr) return 0;
  // A code alone travels in a record of no bytes.
  COPYDATASTRUCT standIn{0, 0, const_cast<char*>("")};
  if (record == nullptr) record = &standIn;
  record->dwData = code;
  BOOL const live = IsWindow(window);
  CORVANTH_ASSERT_AT(live != 0, kSource, 66);
  if (live == 0) return 0;
  // The receiver's own answer tells nothing here: the result is delivery.
  DWORD_PTR answer = 0;
  return static_cast<int>(SendMessageTimeoutA(window, WM_COPYDATA, 0,
                                              reinterpret_cast<LPARAM>(record), SMTO_BLOCK,
                                              kSendTimeoutMilliseconds, &answer));
}

const COPYDATASTRUCT* NVSWaitMsg(HWND window, unsigned int copyDataOnly) {
  CORVANTH_ASSERT_AT(window != nullptr, kSource, 142);
  for (;;) {
    // A failed GetMessageA (-1) reads as a message with lParam 0.
    MSG message{};
    if (GetMessageA(&message, window, 0, 0) == 0) return nullptr;
    if (copyDataOnly == 0 || message.message == WM_COPYDATA) {
      return reinterpret_cast<const COPYDATASTRUCT*>(message.lParam);
    }
  }
}

COPYDATASTRUCT* NVSTakeMsg(HWND window, unsigned int) {
  CORVANTH_ASSERT_AT(window != nullptr, kSource, 176);
  for (;;) {
    MSG message{};
    if (PeekMessageA(&message, window, 0, 0, kTakeOut) == 0) return nullptr;
    if (message.message == WM_COPYDATA) return reinterpret_cast<COPYDATASTRUCT*>(message.lParam);
  }
}

int NVSPeekMsg(HWND window, unsigned int) {
  CORVANTH_ASSERT_AT(window != nullptr, kSource, 195);
  for (;;) {
    MSG message{};
    if (PeekMessageA(&message, window, 0, 0, kLookOnly) == 0) return 0;
    if (message.message == WM_COPYDATA) return 1;
    // Whatever stands before the next copy-data message is drained on purpose.
    PeekMessageA(&message, window, 0, 0, kTakeOut);
  }
}

int NVSPostMsg(unsigned int message, HWND window) { return PostMessageA(window, message, 0, 0); }

COPYDATASTRUCT* NVSAlloc(unsigned int size) {
  CORVANTH_ASSERT_AT(size != 0, kSource, 227);
  auto* record = new COPYDATASTRUCT;
  record->cbData = size;
  try {
    record->lpData = new char[size];
  } catch (...) {
    delete record;
    throw;
  }
  return record;
}

const char* NVSGetDataConst(const COPYDATASTRUCT* record) {
  CORVANTH_ASSERT_AT(record != nullptr, kSource, 251);
  // The check reports and goes on; reading through null would not.
  return record != nullptr ? static_cast<const char*>(record->lpData) : nullptr;
}

char* NVSGetData(COPYDATASTRUCT* record) {
  CORVANTH_ASSERT_AT(record != nullptr, kSource, 256);
  return record != nullptr ? static_cast<char*>(record->lpData) : nullptr;
}

int NVSReleaseData(const COPYDATASTRUCT* record) {
  // Nothing is mapped or locked; the call marks the end of an access.
  CORVANTH_ASSERT_AT(record != nullptr, kSource, 276);
  return 1;
}

int NVSFreeData(const COPYDATASTRUCT* record) {
  CORVANTH_ASSERT_AT(record != nullptr, kSource, 297);
  try {
    // A null record is reported above; its bytes cannot be reached to free.
    if (record != nullptr) delete[] static_cast<char*>(record->lpData);
    delete record;
  } catch (std::exception const& error) {
    CORVANTH_LOG_AT(nLog::nBasic::sErrorTag_, kSource, 303, error.what());
    return 0;
  } catch (...) {
    CORVANTH_LOG_AT(nLog::nBasic::sErrorTag_, kSource, 306);
    return 0;
  }
  return 1;
}

COPYDATASTRUCT* NVSPackData(const char* data, long length, short type, short subtype) {
  // A length is 32 bits; one that no record can hold (negative, or too long
  // for cbData with its header) gives no record rather than a short one.
  if (length < 0 || static_cast<std::uint64_t>(length) > UINT32_MAX - kHeaderSize) return nullptr;
  COPYDATASTRUCT* const record = NVSAlloc(static_cast<unsigned int>(length) + kHeaderSize);
  if (record == nullptr) return nullptr;
  char* const bytes = NVSGetData(record);
  c_MessageHeader header;
  SSMMakeMessageHeader(length, type, subtype, &header);
  std::memcpy(bytes, &header, kHeaderSize);
  // No data leaves the payload unset instead of reading through null.
  if (data != nullptr && length > 0) std::memcpy(bytes + kHeaderSize, data, static_cast<std::size_t>(length));
  NVSReleaseData(record);
  return record;
}

void NVSUnPackData(const COPYDATASTRUCT* record, const char*& data, long& length, short& type,
                   short& subtype) {
  const char* const bytes = record != nullptr ? NVSGetDataConst(record) : nullptr;
  // A record comes from another process: a header never makes the caller read
  // past the bytes that arrived.
  if (bytes == nullptr || record->cbData < kHeaderSize) {
    data = nullptr;
    length = 0;
    type = 0;
    subtype = 0;
    return;
  }
  c_MessageHeader header;
  std::memcpy(&header, bytes, kHeaderSize);
  std::int64_t const available = record->cbData - kHeaderSize;
  std::int64_t const announced = header.fLength();
  data = bytes + kHeaderSize;
  length = static_cast<long>(announced < 0 ? 0 : announced > available ? available : announced);
  type = header.fType();
  subtype = header.fSubtype();
}
