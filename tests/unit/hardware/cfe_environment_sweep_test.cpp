// Compares the parser of the bootloader environment with a second parser, for every truncation and every change of one
// byte.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "lib/hardware/cfe_environment.h"
#include "tests/unit/hardware/cfe_block.h"
#include "tests/unit/support/captured_stderr.h"

using test_hardware::EndRecord;
using test_hardware::Record;
using test_support::CapturedStderr;

namespace {

struct Outcome {
  CfeEnvironment environment;
  std::string error;
  std::string printed;

  bool operator==(const Outcome& other) const {
    return environment == other.environment && error == other.error && printed == other.printed;
  }
};

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << testing::PrintToString(outcome.environment) << " error '" << outcome.error << "' printed '"
                << outcome.printed << "'";
}

Outcome Actual(const std::string& bytes, CapturedStderr& captured) {
  // The buffer has exactly this size, so that a sanitizer notices a read after its end.
  const std::vector<unsigned char> exact(bytes.begin(), bytes.end());
  Outcome outcome;
  try {
    outcome.environment = ParseCfeEnvironment(exact.data(), exact.size());
  } catch (const std::runtime_error& e) {
    outcome.error = e.what();
  }
  outcome.printed = captured.Take();
  return outcome;
}

// Parses the first record and removes it, until no record is left.
Outcome Expected(std::string rest) {
  Outcome outcome;
  if (rest[0] == '\xFF') {
    return outcome;
  }
  while (!rest.empty() && rest[0] != '\0' && outcome.error.empty()) {
    const std::size_t length = rest.size() > 1 ? static_cast<unsigned char>(rest[1]) : 0;
    if (rest[0] != '\x01') {
      outcome.error = "Unknown record type";
    } else if (rest.size() == 1) {
      outcome.error = "Record header truncated";
    } else if (rest.size() < 2 + length) {
      outcome.error = "Record content truncated";
    } else {
      const std::string text = length < 2 ? "" : rest.substr(3, length - 1);
      const std::string name = text.substr(0, text.find('='));
      if (name.size() == text.size()) {
        outcome.printed += "No equals sign in environment string\n";
      } else {
        outcome.environment[name] = text.substr(name.size() + 1);
      }
      rest.erase(0, 2 + length);
    }
  }
  if (!outcome.error.empty()) {
    outcome.environment.clear();
  }
  return outcome;
}

std::string GoodBlock() {
  return Record("PW_FORMAT=1") + Record("PW_HWFLAGS=0x31") + Record("PW_OEM_ID=acme") + Record("no equals") +
         Record("PW_OEM_MODEL=5R377") + Record("EMPTY=") + Record("=nameless") + Record("PW_OEM_ID=other=1") +
         EndRecord() + std::string(4, '\xFF');
}

}  // namespace

TEST(CfeEnvironmentSweep, ParsersAgreeOnEveryTruncation) {
  CapturedStderr captured;
  const std::string block = GoodBlock();
  for (std::size_t length = 0; length <= block.size(); ++length) {
    SCOPED_TRACE(length);
    EXPECT_EQ(Actual(block.substr(0, length), captured), Expected(block.substr(0, length)));
  }
}

TEST(CfeEnvironmentSweep, ParsersAgreeOnEveryChangedByte) {
  CapturedStderr captured;
  const std::string block = GoodBlock();
  ASSERT_GE(block.size(), 120U);
  for (std::size_t place = 0; place < block.size(); ++place) {
    for (int value = 0; value < 256; ++value) {
      std::string changed = block;
      changed[place] = static_cast<char>(value);
      ASSERT_EQ(Actual(changed, captured), Expected(changed)) << "byte " << place << " is " << value;
    }
  }
}

TEST(CfeEnvironmentSweep, ParsersAgreeOnEveryLengthInATruncatedBlock) {
  CapturedStderr captured;
  const std::string record = Record("PW_FORMAT=1");
  for (std::size_t size = 2; size <= 2 * record.size(); ++size) {
    for (int value = 0; value < 256; ++value) {
      std::string bytes = (record + record).substr(0, size);
      bytes[1] = static_cast<char>(value);
      ASSERT_EQ(Actual(bytes, captured), Expected(bytes)) << "length " << value << " in " << size << " bytes";
    }
  }
}
