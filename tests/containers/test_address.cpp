#include <gtest/gtest.h>

#include "CorvanthAddress.h"

namespace {

TEST(CorvanthAddress, JoiningCopiesThePartsAroundOneAt) {
  struct tRow {
    char const *client, *host, *address;
  };
  for (tRow const row :
       {tRow{"agent", "host1", "agent@host1"}, tRow{"", "host", "@host"},
        tRow{"client", "", "client@"}, tRow{"", "", "@"}, tRow{"a@b", "c", "a@b@c"}}) {
    CCorvanthAddress const address(row.client, row.host);
    EXPECT_STREQ(address.Address(), row.address);
    EXPECT_STREQ(address.ClientName(), row.client);
    EXPECT_STREQ(address.HostName(), row.host);
  }
}

TEST(CorvanthAddress, SplittingFollowsTheTokenizerRowByRow) {
  struct tRow {
    char const *text, *client, *host;
  };
  for (tRow const row : {tRow{"agent@host1", "agent", "host1"}, tRow{"agent", "agent", ""},
                         tRow{"agent@", "agent", ""}, tRow{"@host1", "host1", ""},
                         tRow{"a@b@c", "a", "b"}, tRow{"", "", ""}, tRow{"@@a@@b", "a", "b"}}) {
    SCOPED_TRACE(row.text);
    CCorvanthAddress const address(row.text);
    EXPECT_STREQ(address.Address(), row.text);
    EXPECT_STREQ(address.ClientName(), row.client);
    EXPECT_STREQ(address.HostName(), row.host);
  }
}

TEST(CorvanthAddress, CopiesAreIndependentOfTheirSource) {
  auto* source = new CCorvanthAddress("agent", "host1");
  CCorvanthAddress copy(*source);
  CCorvanthAddress assigned("x@y");
  assigned = *source;
  delete source;  // the copies own their texts
  EXPECT_STREQ(copy.Address(), "agent@host1");
  EXPECT_STREQ(assigned.ClientName(), "agent");
  EXPECT_STREQ(assigned.HostName(), "host1");
  assigned = CCorvanthAddress("other@place");
  EXPECT_STREQ(copy.HostName(), "host1");
  EXPECT_STREQ(assigned.Address(), "other@place");
}

}  // namespace
