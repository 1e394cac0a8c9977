#include "lib/platform/singleton.h"

#include <array>
#include <new>

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

// A named namespace: compilers write an unnamed one in different ways.
namespace singleton_test {

// Constructors are not inlined: GCC would mistake the check of the address for a use of the members.
class alignas(8) Thing : public Singleton<Thing> {
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

class alignas(8) OtherThing : public Singleton<OtherThing> {
public:
  [[gnu::noinline]] OtherThing() {}
};

// The base must notice a wrong address.
class Unaligned : public Singleton<Unaligned> {
public:
  [[gnu::noinline]] Unaligned() {}
};

}  // namespace singleton_test

namespace {

using namespace singleton_test;

static_assert(!std::is_copy_constructible_v<Thing>);
static_assert(!std::is_copy_assignable_v<Thing>);
static_assert(!std::is_move_constructible_v<Thing>);

constexpr char kFile[] = "lib/platform/singleton.h";
constexpr char kConstructor[] = ".*Singleton<.*>::Singleton\\(\\).*";

void ExpectNone() {
  EXPECT_ASSERTION(Thing::GetInstance(), "ValidatePointer(sm_instance, kAlignment)", kFile,
                   ".*Singleton<.*>::GetInstance\\(\\).*");
}

TEST(Singleton, IsAccessibleWhileItExists) {
  for (int value = 1; value <= 3; ++value) {
    ExpectNone();
    Thing thing(value);
    OtherThing other;
    EXPECT_EQ(&Thing::GetInstance(), &thing);
    EXPECT_EQ(Thing::GetInstance().Value(), value);
    EXPECT_EQ(&OtherThing::GetInstance(), &other);
  }
  EXPECT_THROW(Thing(-1), std::invalid_argument);
  ExpectNone();
}

TEST(Singleton, AbortsIfThereIsASecondObject) {
  const Thing thing;
  EXPECT_ASSERTION(Thing(), "sm_instance == __null", kFile, kConstructor);
  EXPECT_ASSERTION(Thing(-1), "sm_instance == __null", kFile, kConstructor);
}

TEST(Singleton, AbortsIfAnUnregisteredObjectIsDestroyed) {
  alignas(Thing) std::array<unsigned char, sizeof(Thing)> never_constructed{};
  const auto expect_abort = [&] {
    EXPECT_ASSERTION(reinterpret_cast<Thing*>(never_constructed.data())->~Thing(), "sm_instance == this", kFile,
                     ".*Singleton<.*>::~Singleton\\(\\).*");
  };
  expect_abort();
  const Thing thing;
  expect_abort();
}

TEST(Singleton, AbortsIfItsAddressIsNoMultipleOfEight) {
  alignas(8) std::array<unsigned char, 8 + sizeof(Unaligned)> room{};
  for (std::size_t offset = 1; offset < 8; ++offset) {
    SCOPED_TRACE(offset);
    EXPECT_ASSERTION(new (room.data() + offset) Unaligned, "ValidatePointer(this, kAlignment)", kFile, kConstructor);
  }
  Unaligned* const aligned = new (room.data() + 8) Unaligned;
  EXPECT_EQ(&Unaligned::GetInstance(), aligned);
  aligned->~Unaligned();
}

}  // namespace
