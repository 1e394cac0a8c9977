#include "client/temporary_file.h"

#include <gtest/gtest.h>

#include "tests/support/forked_child.h"

namespace ledgerctl {
namespace {

// A user who starts "nohup ledgerctl edit" wants that.
TEST(TemporaryFile, LeavesIgnoredSignalsIgnored) {
  EXPECT_EQ(test_support::RunInChild([] {
              ::signal(SIGHUP, SIG_IGN);
              const TemporaryFile file = TemporaryFile::Private();
              ::raise(SIGHUP);
              return "lives";
            }),
            "lives");
}

TEST(TemporaryFile, IsInTmpWithoutTmpdir) {
  ::setenv("TMPDIR", "", 1);
  EXPECT_EQ(TemporaryFile::Private().Path().find("/tmp/ledgerctl-"), 0u);
  ::unsetenv("TMPDIR");
  EXPECT_EQ(TemporaryFile::Private().Path().find("/tmp/ledgerctl-"), 0u);
}

}  // namespace
}  // namespace ledgerctl
