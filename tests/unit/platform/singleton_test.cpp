#include "lib/platform/singleton.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/bound_over.h"
#include "tests/unit/support/temp_dir.h"

// A named namespace: compilers write an unnamed one in different ways.
namespace singleton_test {

// Constructors are not inlined: GCC would take the check of the object's address for a use of its members.
class alignas(8) Thing : public bramble::Singleton<Thing> {
public:
  [[gnu::noinline]] explicit Thing(int value = 0) : m_value(value) {
    if (value < 0) {
      throw std::invalid_argument("negative");
    }
  }

  int Value() const { return m_value; }

private:
  int m_value;
};

class alignas(8) OtherThing : public bramble::Singleton<OtherThing> {
public:
  [[gnu::noinline]] OtherThing() {}
};

// May lie anywhere, which the base must notice.
class Unaligned : public bramble::Singleton<Unaligned> {
public:
  [[gnu::noinline]] Unaligned() {}
};

}  // namespace singleton_test

namespace {

using singleton_test::OtherThing;
using singleton_test::Thing;
using singleton_test::Unaligned;

static_assert(!std::is_copy_constructible_v<Thing>);
static_assert(!std::is_copy_assignable_v<Thing>);
static_assert(!std::is_move_constructible_v<Thing>);

constexpr char kFile[] = "lib/platform/singleton.h";
constexpr char kConstructor[] = ".*Singleton<.*>::Singleton\\(\\).*";
constexpr char kDestructor[] = ".*Singleton<.*>::~Singleton\\(\\).*";
constexpr char kGetInstance[] = ".*Singleton<.*>::GetInstance\\(\\).*";

TEST(Singleton, IsReachableWhileItLives) {
  for (int value = 1; value <= 3; ++value) {
    Thing thing(value);
    EXPECT_EQ(&Thing::GetInstance(), &thing);
    EXPECT_EQ(Thing::GetInstance().Value(), value);
  }
}

TEST(Singleton, IsOneOfEachClass) {
  Thing thing;
  OtherThing other;
  EXPECT_EQ(&Thing::GetInstance(), &thing);
  EXPECT_EQ(&OtherThing::GetInstance(), &other);
}

TEST(Singleton, EndsTheProcessWhenThereIsNone) {
  EXPECT_ASSERTION(Thing::GetInstance(), "ValidatePointer(sm_instance, kAlignment)", kFile, kGetInstance);
  { const Thing thing; }
  EXPECT_ASSERTION(Thing::GetInstance(), "ValidatePointer(sm_instance, kAlignment)", kFile, kGetInstance);
}

TEST(Singleton, IsMissedInTwoRecordsOfTheKernelLog) {
  // Keeps all that is written to it, as the kernel's own log does.
  const test_support::TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "kmsg").c_str(), 0600), 0);
  const bramble::FileDescriptor log = bramble::Open(dir / "kmsg", O_RDWR | O_NONBLOCK);
  const test_support::BoundOver kernel_log(dir / "kmsg", "/dev/kmsg");
  EXPECT_EXIT(Thing::GetInstance(), testing::KilledBySignal(SIGABRT), "");
  std::string text(4096, '\0');
  const ssize_t length = ::read(log.Get(), text.data(), text.size());
  ASSERT_GT(length, 0);
  text.resize(static_cast<std::size_t>(length));
  EXPECT_THAT(text, testing::MatchesRegex("<2>Pointer validation failed for \\(nil\\)\n"
                                          "<2>User space assert from process [0-9]+: [^\n]*\n"
                                          "ASSERT Executing [^\n]*\n"));
}

TEST(Singleton, EndsTheProcessWhenThereIsASecond) {
  const Thing thing;
  EXPECT_ASSERTION(Thing(), "sm_instance == __null", kFile, kConstructor);
  EXPECT_ASSERTION(Thing(-1), "sm_instance == __null", kFile, kConstructor);
}

TEST(Singleton, EndsTheProcessWhenAnotherIsDestroyed) {
  const Thing thing;
  alignas(Thing) std::array<unsigned char, sizeof(Thing)> never_constructed{};
  EXPECT_ASSERTION(reinterpret_cast<Thing*>(never_constructed.data())->~Thing(), "sm_instance == this", kFile,
                   kDestructor);
}

TEST(Singleton, EndsTheProcessWhenOneIsDestroyedThatIsNotRegistered) {
  alignas(Thing) std::array<unsigned char, sizeof(Thing)> never_constructed{};
  EXPECT_ASSERTION(reinterpret_cast<Thing*>(never_constructed.data())->~Thing(), "sm_instance == this", kFile,
                   kDestructor);
}

TEST(Singleton, EndsTheProcessWhenItDoesNotLieOnAMultipleOfEight) {
  alignas(8) std::array<unsigned char, 8 + sizeof(Unaligned)> room{};
  for (std::size_t offset = 1; offset < 8; ++offset) {
    SCOPED_TRACE(offset);
    EXPECT_ASSERTION(new (room.data() + offset) Unaligned, "ValidatePointer(this, kAlignment)", kFile, kConstructor);
  }
  Unaligned* const aligned = new (room.data() + 8) Unaligned;
  EXPECT_EQ(&Unaligned::GetInstance(), aligned);
  aligned->~Unaligned();
}

TEST(Singleton, IsNotRegisteredWhenItsConstructorThrows) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_THROW(Thing(-1), std::invalid_argument);
  }
  EXPECT_ASSERTION(Thing::GetInstance(), "ValidatePointer(sm_instance, kAlignment)", kFile, kGetInstance);
  Thing thing(5);
  EXPECT_EQ(&Thing::GetInstance(), &thing);
}

}  // namespace
