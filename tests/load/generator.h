// Generates the calls of one client and predicts their replies.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/load/model.h"

/// How much of the reply is known in advance.
enum class Match {
  Whole,
  ErrorName,    // the library chooses the text of its errors
  SyntaxError,  // only the beginning of the message
  OwnNames,     // the names in a list that begin with the client's prefix
  OwnJsonMembers,
};

struct Expectation {
  Match match;
  Reply reply;
  std::string prefix;

  bool IsMetBy(const Reply& answered) const;
};

struct ExpectedCall {
  Call call;
  Expectation expectation;
};

/// The names of all sections of a client begin with its prefix. The text of these sections is at most `budget` bytes
/// long, so that the clients together never fill the registry.
class Generator {
public:
  Generator(Model& model, unsigned client, std::size_t budget, std::uint64_t seed);

  ExpectedCall Next();

private:
  std::size_t Below(std::size_t limit);
  std::string Name(const std::string& lower);
  std::string SectionName();
  std::string KeyName();
  std::string Value();
  ExpectedCall Expected(Call call);
  ExpectedCall Write();
  ExpectedCall Merge();
  ExpectedCall Failure();
  bool HasRoomFor(const std::vector<Change>& changes) const;
  ExpectedCall MakeRoom();

  Model& m_model;
  const std::string m_prefix;
  const std::size_t m_budget;
  std::mt19937_64 m_source;
};
