// Tests the order of the virtual functions of the interfaces. Programs that were built against the interfaces rely on
// it. A destructor uses the first two slots.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "dbus/registry_adaptor.h"
#include "lib/hardware/nand_access.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/lazy_persistent_store.h"
#include "lib/platform/persistent_store.h"
#include "lib/platform/trace.h"
#include "registry/registry.h"

namespace {

constexpr std::size_t kNotVirtual = SIZE_MAX;

// In the C++ ABI a pointer to a virtual member function contains its offset in the table of virtual functions and a bit
// that marks it as virtual. On ARM this is the lowest bit of the second word, elsewhere that of the first.
template <typename Member>
std::size_t Slot(Member member) {
  std::size_t words[2];
  static_assert(sizeof words == sizeof member);
  std::memcpy(words, &member, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
  const bool is_virtual = words[1] % 2 == 1;
#else
  const bool is_virtual = words[0] % 2 == 1;
#endif
  return is_virtual ? words[0] / sizeof(void*) : kNotVirtual;
}

// Expects the members in consecutive slots, beginning with slot `first`.
template <typename... Members>
void ExpectSlots(std::size_t first, Members... members) {
  for (const std::size_t slot : {Slot(members)...}) {
    EXPECT_EQ(slot, first++);
  }
}

TEST(VirtualSlots, OfTheRegistry) {
  using R = Registry;
  ExpectSlots(2, &R::ReadAllJson, &R::WriteJson, &R::Read, &R::Write, &R::KeyExists, &R::SectionExists, &R::DeleteKey,
              &R::DeleteSection, &R::DeleteAll, &R::SectionList, &R::KeyList, &R::Flush);
}

TEST(VirtualSlots, OfTheAdaptor) {
  using A = com::tavimesh::Registry_adaptor;
  ExpectSlots(2, &A::introspect, &A::Read, &A::Write, &A::DeleteKey, &A::DeleteSection, &A::DeleteAll, &A::Flush,
              &A::KeyExists, &A::SectionExists, &A::SectionList, &A::KeyList, &A::ReadAllJson, &A::WriteJson);
}

TEST(VirtualSlots, OfTheStores) {
  ExpectSlots(2, &PersistentStore::Read, &PersistentStore::Write, &PersistentStore::Capacity);
  using L = LazyPersistentStore;
  // There are two functions named Write. The one that copies its argument is virtual.
  void (L::*const write)(const std::string&) = &L::Write;
  ExpectSlots(2, &L::Read, write, &L::Capacity, &L::Flush);
}

TEST(VirtualSlots, OfNandAccess) {
  using N = NandAccess;
  ExpectSlots(2, &N::GetEraseSize, &N::GetOobSize, &N::GetWriteSize, &N::GetTotalSize, &N::IsBadBlock, &N::IsOobErased,
              &N::MarkBadBlock, &N::EraseBlock, &N::EraseRange, &N::EraseAll, &N::Read, &N::Write, &N::WriteBlock);
}

TEST(VirtualSlots, OfTheTracesAndTheException) {
  ExpectSlots(2, &bramble::BaseTrace::Emit, &bramble::BaseTrace::Flush);
  using O = bramble::OptionalTrace;
  ExpectSlots(2, &O::Emit, &O::Flush, &O::SetEnabled);
  ExpectSlots(2, &bramble::ErrnoException::what);
}

}  // namespace
