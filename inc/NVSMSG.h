// The local message transport: a typed message between two processes on one
// machine through a window's copy-data message instead of a socket.
//
// A record (COPYDATASTRUCT) made by NVSPackData holds the frame of
// Nvspackmsg.h in lpData: the 8-byte c_MessageHeader in network order, then
// the payload at once behind it; cbData is the payload length + 8 and dwData
// is the sender's code, set only by NVSSendMsg. Example: 57 payload bytes of
// type 5, subtype 2, sent with code 9:
//
//   dwData 9, cbData 65, lpData 00 00 00 39 00 05 00 02 <57 payload bytes>
//
// Ownership: NVSAlloc makes two blocks, the record by plain new and its bytes
// by array new; both go back together through NVSFreeData. NVSSendMsg never
// takes a record over. A record that NVSWaitMsg gives was allocated the same
// way by the window layer; it belongs to the receiver, who frees it with
// NVSFreeData when done.
//
// Thread safety: no state and no lock. NVSPeekMsg and NVSWaitMsg run on the
// thread that owns the window, whose queue they read; NVSSendMsg may block
// its caller for up to 30 seconds.
#pragma once

#include "CorvanthExport.h"
#include "WinMsg.h"

// A record of `size` bytes, contents and dwData unset. A size of 0 is a
// failed check that goes on.
CORVANTH_EXPORT COPYDATASTRUCT* NVSAlloc(unsigned int size);
// Frees the bytes, then the record. 1, or 0 when the freeing raised (logged).
CORVANTH_EXPORT int NVSFreeData(const COPYDATASTRUCT* record);
// The record's bytes; null for a null record.
CORVANTH_EXPORT char* NVSGetData(COPYDATASTRUCT* record);
CORVANTH_EXPORT const char* NVSGetDataConst(const COPYDATASTRUCT* record);
// Ends an access begun with NVSGetData: it only checks its argument; 1.
CORVANTH_EXPORT int NVSReleaseData(const COPYDATASTRUCT* record);

// A new record holding the frame of `length` bytes of `data`; null when no
// record can be made for that length.
CORVANTH_EXPORT COPYDATASTRUCT* NVSPackData(const char* data, long length, short type,
                                            short subtype);
// The payload (inside the record, no copy) and the header fields in host
// order. The length never reaches past the record's bytes; a record too short
// for a header gives null and zeros.
CORVANTH_EXPORT void NVSUnPackData(const COPYDATASTRUCT* record, const char*& data, long& length,
                                   short& type, short& subtype);

// Sends the record (or, for null, an empty one) with dwData = code to the
// window, waiting up to 30 s until its owner has taken it. Non-zero when it
// was delivered; 0 for a null or dead window or when the time ran out. The
// record stays the caller's.
CORVANTH_EXPORT int NVSSendMsg(COPYDATASTRUCT* record, HWND window, unsigned int code);
// 1 when a copy-data message waits in front of the queue; any other message
// in front of it is taken out and dropped. 0 for an empty queue.
CORVANTH_EXPORT int NVSPeekMsg(HWND window, unsigned int unused);
// Waits for the next message: null on the quit message; with copyDataOnly 0
// the lParam of whatever comes, else the record of the next copy-data message
// (others are dropped).
CORVANTH_EXPORT const COPYDATASTRUCT* NVSWaitMsg(HWND window, unsigned int copyDataOnly);
