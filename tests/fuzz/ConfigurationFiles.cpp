#include "tests/fuzz/ConfigurationFiles.h"

#include <ini.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace fuzz {
namespace {

constexpr std::string_view separator = "\n>>>\n";
constexpr std::size_t mostNamedInOneFile = 8;

constexpr std::array<const char*, 3> paths = {
    ConfigurationFiles::mainPath, ConfigurationFiles::firstPath, ConfigurationFiles::secondPath};

// Takes the part before the separator, and the separator too. The last part takes the rest.
std::string takePart(std::string_view& input, bool isLast) {
  const std::size_t end = isLast ? input.npos : input.find(separator);
  const std::string part(input.substr(0, end));
  input.remove_prefix(end == input.npos ? input.size() : end + separator.size());
  return part;
}

// The values of all lines that could be File lines, in any section.
std::vector<std::string> namedIn(const char* path) {
  std::vector<std::string> named;
  const ini_handler remember = [](void* user, const char*, const char* name, const char* value) {
    if (strcasecmp(name, "File") == 0)
      static_cast<std::vector<std::string>*>(user)->push_back(value);
    return 1;
  };
  ini_parse(path, remember, &named);
  return named;
}

// A path that does not exist now may exist while a file is being read, as its descriptor.
bool isOfProcess(const std::string& path) {
  std::error_code error;
  return std::filesystem::weakly_canonical(path, error).string().starts_with("/proc/");
}

}  // namespace

ConfigurationFiles::ConfigurationFiles() {
  for (std::size_t i = 0; i < count; ++i) {
    const int wanted = static_cast<int>(100 + i);
    if (dup2(files_[i].descriptor(), wanted) == wanted) continue;
    throw std::system_error(errno, std::generic_category(), paths[i]);
  }
}

bool ConfigurationFiles::write(std::string_view input) {
  mayLoop_ = false;
  // The module opens files only in such a section.
  const bool mayName = input.find("ParseIfExist:") != input.npos;
  for (std::size_t i = 0; i < count; ++i) {
    texts_[i] = takePart(input, i + 1 == count);
    files_[i].write(texts_[i]);
  }
  if (!mayName) return true;
  bool readable = true;
  for (std::size_t i = 0; i < count; ++i) readable = look(i) && readable;
  return readable;
}

const std::string* ConfigurationFiles::textOf(std::string_view path) const {
  const auto own = std::find(paths.begin(), paths.end(), path);
  return own == paths.end() ? nullptr : &texts_[static_cast<std::size_t>(own - paths.begin())];
}

bool ConfigurationFiles::look(std::size_t file) {
  const std::vector<std::string> named = namedIn(paths[file]);
  if (named.size() > mostNamedInOneFile) return false;
  return std::all_of(named.begin(), named.end(), [&](const std::string& path) {
    const auto own = std::find(paths.begin(), paths.end(), path);
    if (own == paths.end()) return access(path.c_str(), F_OK) != 0 && !isOfProcess(path);
    if (static_cast<std::size_t>(own - paths.begin()) <= file) mayLoop_ = true;
    return true;
  });
}

}  // namespace fuzz
