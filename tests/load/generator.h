// Generates the calls of one client.
#pragma once

#include <random>
#include <string>

#include "tests/model/registry_model.h"

/// Returns a call that makes the text longer by at most `room` bytes, or that must fail. The names of all sections
/// begin with `prefix`.
model::Call RandomCall(std::mt19937_64& source, const std::string& prefix, std::size_t room);
