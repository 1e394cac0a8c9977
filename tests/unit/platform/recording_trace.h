// A trace sink that keeps what it gets.
#pragma once

#include <string>
#include <vector>

#include "lib/platform/trace.h"

namespace test_platform {

class RecordingTrace : public bramble::BaseTrace {
public:
  void Emit(const std::string& text) override { texts.push_back(text); }
  void Flush() override {}

  std::vector<std::string> texts;
};

}  // namespace test_platform
