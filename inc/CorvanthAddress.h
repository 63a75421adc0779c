// CCorvanthAddress: a routing endpoint as text, "client@host", kept in both
// forms. Joining copies client and host as given and writes
// client + "@" + host; splitting keeps the text as the address and takes the
// first two tokens between "@" as client and host, the way RWCTokenizer
// cuts: a leading "@" shifts the host into the client name ("@host1" gives
// client "host1", no host), and a third part stays only in the address.
// Nothing is trimmed, validated or reported. One object belongs to one thread.
#pragma once

#include "CorvanthExport.h"
#include "rwcstring.h"

class CORVANTH_EXPORT CCorvanthAddress {
 public:
  CCorvanthAddress(char const* client, char const* host);
  explicit CCorvanthAddress(char const* address);
  CCorvanthAddress(CCorvanthAddress const&) = default;
  CCorvanthAddress& operator=(CCorvanthAddress const&) = default;
  virtual ~CCorvanthAddress();

  // The texts, valid as long as the object is and not changed.
  char const* Address() const { return mAddress.c_str(); }
  char const* ClientName() const { return mClientName.c_str(); }
  char const* HostName() const { return mHostName.c_str(); }

 private:
  RWCString mClientName;
  RWCString mHostName;
  RWCString mAddress;
};
