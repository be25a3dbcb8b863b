// A folder for one test, removed with its content. One thread at a time.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

class TemporaryFolder {
 public:
  TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "gateway-test-XXXXXX") {
    std::string name = path_;
    if (mkdtemp(name.data()) == nullptr)
      throw std::runtime_error("can't create the temporary folder " + name);
    path_ = name;
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string path(const std::string& name) const { return path_ / name; }

  // Writes a file and returns its path.
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }

 private:
  std::filesystem::path path_;
};
