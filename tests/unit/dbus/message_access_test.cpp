#include "dbus/message_access.h"

#include <gtest/gtest.h>

#include "tests/unit/dbus/wrapped_message.h"

namespace {

TEST(MessageAccess, ReportsWhetherTheCallerWaitsForAReply) {
  const DBus::Message call = test_support::ReceivedCall("a.b", "M", {});
  EXPECT_TRUE(WantsReply(call));
  dbus_message_set_no_reply(test_support::RawMessage(call), true);
  EXPECT_FALSE(WantsReply(call));
}

}  // namespace
