#include "CorvanthAddress.h"

#include "rwtoken.h"

namespace {
char const* gText(char const* text) { return text != nullptr ? text : ""; }
}  // namespace

CCorvanthAddress::CCorvanthAddress(char const* client, char const* host)
    : mClientName(gText(client)), mHostName(gText(host)) {
  mAddress.reserve(mClientName.size() + 1 + mHostName.size());
  mAddress += mClientName;
  mAddress += '@';
  mAddress += mHostName;
}

CCorvanthAddress::CCorvanthAddress(char const* address) : mAddress(gText(address)) {
  RWCTokenizer next(mAddress);
  mClientName = next("@");
  mHostName = next("@");
}

CCorvanthAddress::~CCorvanthAddress() = default;
