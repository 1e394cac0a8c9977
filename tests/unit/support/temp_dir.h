// A directory for one test. The destructor removes it with its contents.
#pragma once

#include <string>

namespace test_support {

class TempDir {
public:
  /// Throws std::system_error.
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
  std::string m_path;
};

/// Throws std::ios_base::failure.
void WriteTextFile(const std::string& path, const std::string& text);
std::string ReadTextFile(const std::string& path);

}  // namespace test_support
