// Reports for continuous integration in the XML format of JUnit. Any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tools {

struct JunitCase {
  std::string name;
  double seconds = 0;
  std::optional<std::string> failure = {};  // why it failed
  std::optional<std::string> skipped = {};  // why it did not run
  std::string output = {};                  // what it saw; may be empty
};

// A test suite. The document is valid for texts of any bytes: what XML can't hold is escaped or
// replaced.
std::string junitOf(const std::string& suite, const std::vector<JunitCase>& cases);

}  // namespace tools
