// Generates the calls of one client.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "tests/model/registry_model.h"

class Generator {
public:
  /// The names of all sections begin with `prefix`.
  Generator(std::string prefix, std::uint64_t seed) : m_prefix(std::move(prefix)), m_source(seed) {}

  /// Returns a call that makes the text longer by at most `room` bytes, or that must fail.
  model::Call Next(std::size_t room);

private:
  std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(m_source() % limit); }
  std::string Name(std::string lower);
  std::string SectionName();
  std::string KeyName();
  std::string Value();
  model::Call Write(std::size_t room);
  model::Call WriteJson(std::size_t room);
  model::Call Failure();

  const std::string m_prefix;
  std::mt19937_64 m_source;
};
