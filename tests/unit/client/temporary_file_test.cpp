#include "client/temporary_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"

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

// A later signal neither removes a file nor reports one.
TEST(TemporaryFile, IsForgottenAfterItIsRemovedOrKept) {
  const test_support::CapturedStderr nothing;
  TemporaryFile::Private().HoldWork();
  SettleTemporaryFile();
  TemporaryFile kept = TemporaryFile::Private();
  const std::string path = kept.Path();
  kept.Keep();
  SettleTemporaryFile();
  EXPECT_TRUE(std::filesystem::remove(path));
}

TEST(TemporaryFile, IsInTmpWithoutTmpdir) {
  ::setenv("TMPDIR", "", 1);
  EXPECT_EQ(TemporaryFile::Private().Path().find("/tmp/ledgerctl-"), 0u);
  ::unsetenv("TMPDIR");
  EXPECT_EQ(TemporaryFile::Private().Path().find("/tmp/ledgerctl-"), 0u);
}

}  // namespace
}  // namespace ledgerctl
