// The text of a file.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

// Byte for byte; empty if the file can't be read.
inline std::string textOf(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}
