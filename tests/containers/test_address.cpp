#include <gtest/gtest.h>

#include "CorvanthAddress.h"

namespace {

TEST(CorvanthAddress, JoiningAndSplittingFollowTheTableRowByRow) {
  struct tJoin {
    char const *client, *host, *address;
  };
  for (tJoin const row :
       {tJoin{"agent", "host1", "agent@host1"}, tJoin{"", "host", "@host"},
        tJoin{"client", "", "client@"}, tJoin{"", "", "@"}, tJoin{"a@b", "c", "a@b@c"}}) {
    CCorvanthAddress const address(row.client, row.host);
    EXPECT_STREQ(address.Address(), row.address);
    EXPECT_STREQ(address.ClientName(), row.client);
    EXPECT_STREQ(address.HostName(), row.host);
  }
  struct tSplit {
    char const *text, *client, *host;
  };
  for (tSplit const row :
       {tSplit{"agent@host1", "agent", "host1"}, tSplit{"agent", "agent", ""},
        tSplit{"agent@", "agent", ""}, tSplit{"@host1", "host1", ""}, tSplit{"a@b@c", "a", "b"},
        tSplit{"", "", ""}, tSplit{"@@a@@b", "a", "b"}}) {
    SCOPED_TRACE(row.text);
    CCorvanthAddress const address(row.text);
    EXPECT_STREQ(address.Address(), row.text);
    EXPECT_STREQ(address.ClientName(), row.client);
    EXPECT_STREQ(address.HostName(), row.host);
  }
}

}  // namespace
