// One input as a configuration of up to three files: the main one, and two dedicated files that
// File lines may name. The text "\n>>>\n" separates them.
//
// The files are in memory. Their names are the same in every process on any machine: mainPath,
// firstPath and secondPath. An input cannot name any other existing file.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tests/tools/check/RewrittenFile.h"

namespace fuzz {

class ConfigurationFiles {
 public:
  static constexpr char mainPath[] = "/dev/fd/100";
  static constexpr char firstPath[] = "/dev/fd/101";
  static constexpr char secondPath[] = "/dev/fd/102";

  // Throws std::system_error if the names are not available.
  ConfigurationFiles();

  // Replaces the files. Returns false if the input must not be read, because it names foreign
  // files, or its own files too often.
  bool write(std::string_view input);

  // The text of the file at that path, or null if it is not one of the three.
  const std::string* textOf(std::string_view path) const;

  // Whether a file of the last input names itself or an earlier file, so that reading may never
  // end.
  bool mayLoop() const { return mayLoop_; }

 private:
  static constexpr std::size_t count = 3;

  bool look(std::size_t file);

  std::array<RewrittenFile, count> files_;
  std::array<std::string, count> texts_;
  bool mayLoop_ = false;
};

}  // namespace fuzz
