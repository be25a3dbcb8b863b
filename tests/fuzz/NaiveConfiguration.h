// A second implementation of the rules of docs/configuration.md. It is slow and shares nothing with
// the module's: files are texts, which the naive readers of INI files and quoted words read.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "module/grpc-gateway/ConfigManager.h"

namespace fuzz {

// An entry of any list. The default is a text or the bytes of a number; engine entries have none.
struct NaiveEntry {
  std::string key = {};
  std::string customKey = {};
  bool isSlow = false;
  std::string defaultValue = {};

  bool operator==(const NaiveEntry&) const = default;
};

class NaiveConfiguration {
 public:
  // Returns the text of the file at a path, or null if there is none.
  using Files = std::function<const std::string*(std::string_view path)>;

  NaiveConfiguration(const Files& files, std::string_view mainPath);
  // The configuration as the module has read it.
  explicit NaiveConfiguration(const gateway::ConfigManager& config);

  bool operator==(const NaiveConfiguration&) const = default;

 private:
  class Reading;

  bool isSound() const;

  std::string metersTarget_;
  std::string engineTarget_;
  bool fast_ = true;
  bool slow_ = true;
  // Keyed by "fast", "slow" or "engine" and the type, such as "fast int". Empty lists are absent.
  std::map<std::string, std::vector<NaiveEntry>> lists_;
  bool isValid_ = true;
};

}  // namespace fuzz
