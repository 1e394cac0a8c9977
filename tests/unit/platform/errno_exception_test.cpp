#include "lib/platform/errno_exception.h"

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

static_assert(std::is_convertible_v<ErrnoException*, std::exception*>);
static_assert(noexcept(std::declval<const ErrnoException&>().what()));
static_assert(noexcept(std::declval<const ErrnoException&>().ErrorNumber()));

TEST(ErrnoException, JoinsContextDescriptionAndNumber) {
  const std::tuple<const char*, int, const char*, const char*> rows[] = {
      {"short context", 2, "x", "x: No such file or directory (2)"},
      {"a call", EAGAIN, "sigtimedwait", "sigtimedwait: Resource temporarily unavailable (11)"},
      {"path", EACCES, "/a b/c%d", "/a b/c%d: Permission denied (13)"},
      {"empty context", ENOENT, "", ": No such file or directory (2)"},
      {"no error", 0, "x", "x: Success (0)"},
      {"unknown number", 9999, "x", "x: Unknown error 9999 (9999)"},
      {"negative number", -1, "x", "x: Unknown error -1 (-1)"},
  };
  for (const auto& [name, error_number, context, text] : rows) {
    SCOPED_TRACE(name);
    for (const auto& e : {ErrnoException(error_number, context), ErrnoException(error_number, std::string(context))}) {
      EXPECT_STREQ(e.what(), text);
      EXPECT_EQ(e.ErrorNumber(), error_number);
    }
  }
}

TEST(ErrnoException, HasNoPrefixWithoutContext) {
  const char* const none = nullptr;
  for (const auto& e : {ErrnoException(ENOENT), ErrnoException(ENOENT, none)}) {
    EXPECT_STREQ(e.what(), "No such file or directory (2)");
    EXPECT_EQ(e.ErrorNumber(), ENOENT);
  }
}

TEST(ErrnoException, OwnsItsText) {
  auto context = std::make_unique<std::string>("a context that is too long for the string's own buffer");
  auto original = std::make_unique<ErrnoException>(EIO, *context);
  context.reset();
  const ErrnoException copy(*original);
  original.reset();
  EXPECT_STREQ(copy.what(), "a context that is too long for the string's own buffer: Input/output error (5)");
  EXPECT_EQ(copy.ErrorNumber(), EIO);
}
