// Runs operations under callgrind. Only instructions of the calls are counted. callgrind writes them under the name of
// the operation.
#pragma once

#include <functional>

struct Counting {
  const char* name;
  int calls;  // even, because operations that change something alternate between two values
  /// Only calls of this function are counted, including all functions that it calls. Null: the whole operation is
  /// counted.
  const char* root = nullptr;
};

/// Calls `operation` a few times without counting it, then `calls` times with counting, and prints "name calls root".
/// The argument of `operation` is the number of the call. Without valgrind it does the same work.
void Count(const Counting& counting, const std::function<void(int)>& operation);

/// Counts the registry's operations without a bus.
void CountInProcess();

/// Counts the work of the served object for calls on a connection without a bus daemon.
void CountServed();
