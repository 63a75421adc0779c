// The transport's own code compiled into this program, its call of
// SendMessageTimeoutA routed to a stand-in that notes the arguments and hands
// the call on to the library; the queue functions that the library does not
// export are reached here too.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "LogCapture.h"

#define SendMessageTimeoutA gNotedSendMessageTimeoutA
#include "../../SRC/NVSMSG.cpp"
#undef SendMessageTimeoutA
CORVANTH_EXPORT LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam,
                                            UINT flags, UINT timeoutMilliseconds, DWORD_PTR* result);

namespace {

// message, wParam, lParam, flags, time-out
std::tuple<UINT, WPARAM, LPARAM, UINT, UINT> gLastSend;

}  // namespace

LRESULT gNotedSendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam,
                                  UINT flags, UINT timeoutMilliseconds, DWORD_PTR* result) {
  gLastSend = {message, wParam, lParam, flags, timeoutMilliseconds};
  return SendMessageTimeoutA(window, message, wParam, lParam, flags, timeoutMilliseconds, result);
}

namespace {

TEST(NvsStandIn, SendWaitsThirtySecondsBlockedAndTakeDrainsToTheCopyData) {
  corvanth::test::cLogCapture capture;
  HWND window = CreateWindowA(("standin-" + std::to_string(getpid())).c_str());
  ASSERT_NE(window, nullptr);
  COPYDATASTRUCT* record = NVSPackData("abc", 3, 1, 2);
  ASSERT_EQ(NVSSendMsg(record, window, 9), 1);
  EXPECT_EQ(gLastSend, std::make_tuple(UINT(WM_COPYDATA), WPARAM(0), reinterpret_cast<LPARAM>(record), UINT(SMTO_BLOCK), 30000u));
  NVSFreeData(record);

  EXPECT_EQ(NVSPostMsg(0x401, window), 1);
  EXPECT_EQ(NVSPostMsg(0x402, window), 1);
  NVSSendMsg(nullptr, window, 4);
  COPYDATASTRUCT* first = NVSTakeMsg(window, 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(std::to_string(first->dwData) + ":" + std::string(NVSGetData(first), first->cbData), std::string("9:\0\0\0\3\0\1\0\2abc", 13));
  COPYDATASTRUCT* second = NVSTakeMsg(window, 0);
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(second->dwData == 4 && second->cbData == 0) << second->dwData << " " << second->cbData;
  EXPECT_EQ(NVSTakeMsg(window, 0), nullptr);
  EXPECT_EQ(NVSTakeMsg(nullptr, 0), nullptr);
  EXPECT_EQ(capture.fAt("NVSMSG", 176).size(), 1u);
  EXPECT_EQ(NVSFreeData(first) + NVSFreeData(second), 2);
  DestroyWindow(window);
}

}  // namespace
