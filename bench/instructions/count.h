// Runs operations for callgrind: instructions are collected within the calls only, and written out under the
// operation's name.
#pragma once

#include <functional>

struct Counting {
  const char* name;
  int calls;  // even: operations that change something take turns in two values
  /// The function of whose calls the instructions count, all that it calls included. Null: the whole operation.
  const char* root = nullptr;
};

/// Calls `operation`, which gets the number of the call, a few times uncounted and then counted, and prints
/// "name calls root". Outside of valgrind it does the same work.
void Count(const Counting& counting, const std::function<void(int)>& operation);

/// The registry's operations in one process.
void CountInProcess();

/// What the served object does for calls on a connection without a bus.
void CountServed();
