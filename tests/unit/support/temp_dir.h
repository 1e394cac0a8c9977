// A directory for one test. The destructor removes it with its contents.
#pragma once

#include <boost/core/noncopyable.hpp>
#include <string>

namespace test_support {

class TempDir : boost::noncopyable {
public:
  /// Throws std::system_error.
  TempDir();
  ~TempDir();

  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
  std::string m_path;
};

/// Throws std::ios_base::failure.
void WriteTextFile(const std::string& path, const std::string& text);
std::string ReadTextFile(const std::string& path);

}  // namespace test_support
