#include "lib/platform/errno_exception.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <type_traits>

using bramble::ErrnoException;

static_assert(std::is_base_of_v<std::exception, ErrnoException>);
static_assert(noexcept(std::declval<const ErrnoException&>().what()));
static_assert(noexcept(std::declval<const ErrnoException&>().ErrorNumber()));

TEST(ErrnoException, JoinsContextDescriptionAndNumber) {
  const struct {
    const char* name;
    int error_number;
    const char* context;
    const char* text;
  } rows[] = {
      {"short context", 2, "x", "x: No such file or directory (2)"},
      {"a call", EAGAIN, "sigtimedwait", "sigtimedwait: Resource temporarily unavailable (11)"},
      {"path", EACCES, "/a b/c%d", "/a b/c%d: Permission denied (13)"},
      {"empty context", ENOENT, "", ": No such file or directory (2)"},
      {"no error", 0, "x", "x: Success (0)"},
      {"unknown number", 9999, "x", "x: Unknown error 9999 (9999)"},
      {"negative number", -1, "x", "x: Unknown error -1 (-1)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const ErrnoException from_pointer(row.error_number, row.context);
    EXPECT_STREQ(from_pointer.what(), row.text);
    EXPECT_EQ(from_pointer.ErrorNumber(), row.error_number);

    const ErrnoException from_string(row.error_number, std::string(row.context));
    EXPECT_STREQ(from_string.what(), row.text);
    EXPECT_EQ(from_string.ErrorNumber(), row.error_number);
  }
}

TEST(ErrnoException, HasNoPrefixWithoutContext) {
  EXPECT_STREQ(ErrnoException(ENOENT).what(), "No such file or directory (2)");
  EXPECT_EQ(ErrnoException(ENOENT).ErrorNumber(), ENOENT);
  const char* const none = nullptr;
  EXPECT_STREQ(ErrnoException(ENOSPC, none).what(), "No space left on device (28)");
  EXPECT_EQ(ErrnoException(ENOSPC, none).ErrorNumber(), ENOSPC);
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

TEST(ErrnoException, IsCaughtAsStandardException) {
  try {
    throw ErrnoException(ENOENT, "x");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "x: No such file or directory (2)");
  }
}
