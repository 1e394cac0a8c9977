// For a source that holds many mutants. LEDGERD_MUTANT is the number of the mutant that the program has; 0 is none.
// LEDGERD_REACHED is a file with a byte for each mutant, which becomes 1 when a process reaches it.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace {

constexpr int kMostMutants = 4096;
int ledgerd_mutant = 0;
unsigned char not_recorded[kMostMutants];
volatile unsigned char* ledgerd_reached = not_recorded;

// Runs before all other code of the program. Forked children share the mapping.
[[gnu::constructor(101), maybe_unused]] void ReadEnvironment() {
  if (const char* const number = std::getenv("LEDGERD_MUTANT")) {
    ledgerd_mutant = std::atoi(number);
  }
  if (const char* const path = std::getenv("LEDGERD_REACHED")) {
    const int fd = ::open(path, O_RDWR | O_CLOEXEC);
    void* const map = ::mmap(nullptr, kMostMutants, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
      ::_exit(1);  // otherwise it would seem to reach nothing
    }
    ledgerd_reached = static_cast<unsigned char*>(map);
    ::close(fd);
  }
}

}  // namespace
