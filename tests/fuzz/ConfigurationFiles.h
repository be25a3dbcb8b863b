// One input as a configuration of up to three files: the main one, and two dedicated files that
// File lines may name. They are parted by the text "\n>>>\n".
//
// The files lie in memory and have the same names in every process, whatever the machine holds:
// mainPath, firstPath and secondPath. An input can name no other file that exists.
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

  // Throws std::system_error if the names can't be had.
  ConfigurationFiles();

  // Replaces the files. False if the input is not to be read: it names foreign files, or its own
  // more often than a reading should take.
  bool write(std::string_view input);

  // The last input's file of that name; null if it is none of its three.
  const std::string* textOf(std::string_view path) const;

  // Whether a file of the last input names itself or one in front of it: it may be read without
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
