// The one call by which a client of dconf changes settings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/workload.h"

/// The changes as the call's argument holds them: a serialised GVariant of type a{smv}, from the path "/section/key" to
/// the string value, in this machine's byte order.
std::vector<std::uint8_t> DconfChange(const std::vector<workload::Entry>& entries);
