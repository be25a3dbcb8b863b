#include "tools/common/ConfigFiles.h"

#include <ini.h>
#include <strings.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace tools {
namespace {

constexpr std::string_view condition = "ParseIfExist:";

std::optional<std::string> textOf(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void add(ConfigFiles& files, const std::string& path);

int takePair(void* user, const char* section, const char* name, const char* value) {
  if (!std::string_view(section).starts_with(condition)) return 1;
  ConfigFiles& files = *static_cast<ConfigFiles*>(user);
  add(files, section + condition.size());
  if (strcasecmp(name, "File") == 0) add(files, value);
  return 1;
}

void add(ConfigFiles& files, const std::string& path) {
  if (path.empty() || files.contains(path)) return;
  const bool isReadable = (files[path] = textOf(path)).has_value();
  if (isReadable) ini_parse(path.c_str(), takePair, &files);
}

}  // namespace

ConfigFiles filesOf(const std::string& config) {
  ConfigFiles files;
  add(files, config);
  return files;
}

}  // namespace tools
