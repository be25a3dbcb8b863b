#include <ini.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t chunkBufferSize = 1024;
constexpr std::size_t storedNameLimit = 49;
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

bool isBlank(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string_view trimEnd(std::string_view text) {
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  return trimEnd(text);
}

std::string_view cutInlineComment(std::string_view text) {
  std::size_t mark = text.find(';', 1);
  while (mark != std::string_view::npos && !isBlank(text[mark - 1]))
    mark = text.find(';', mark + 1);
  return text.substr(0, mark);
}

std::size_t findSeparator(std::string_view text) {
  const std::string_view searched = cutInlineComment(text);
  const std::size_t equals = searched.find('=');
  return equals != std::string_view::npos ? equals : searched.find(':');
}

// One pass over one file, line by line. Each take function returns false for a bad line.
class Pass {
 public:
  Pass(ini_handler handler, void* user) : handler_(handler), user_(user) {}

  int read(std::FILE* file);

 private:
  bool takeLine(std::string_view line);
  bool takeHeader(std::string_view text);
  bool takePair(std::string_view text);
  bool handle(const std::string& name, std::string_view value);

  const ini_handler handler_;
  void* const user_;
  std::string section_;
  std::string pendingName_;  // empty if none
};

int Pass::read(std::FILE* file) {
  std::array<char, chunkBufferSize> chunk;
  std::int64_t firstBad = 0;
  for (std::int64_t number = 1; std::fgets(chunk.data(), chunkBufferSize, file); ++number) {
    std::string_view line = chunk.data();
    if (number == 1 && line.starts_with(byteOrderMark)) line.remove_prefix(byteOrderMark.size());
    if (!takeLine(line) && firstBad == 0) firstBad = number;
  }
  return static_cast<int>(std::min<std::int64_t>(firstBad, std::numeric_limits<int>::max()));
}

bool Pass::takeLine(std::string_view line) {
  const std::string_view text = trim(line);
  if (text.empty() || text.front() == ';' || text.front() == '#') return true;
  if (isBlank(line.front()) && !pendingName_.empty()) return handle(pendingName_, text);
  return text.front() == '[' ? takeHeader(text) : takePair(text);
}

bool Pass::takeHeader(std::string_view text) {
  const std::size_t close = cutInlineComment(text).find(']');
  if (close == std::string_view::npos) return false;
  section_ = text.substr(1, std::min(close - 1, storedNameLimit));
  pendingName_.clear();
  return true;
}

bool Pass::takePair(std::string_view text) {
  const std::size_t separator = findSeparator(text);
  if (separator == std::string_view::npos) return false;
  const std::string name(trim(text.substr(0, separator)));
  pendingName_ = name.substr(0, storedNameLimit);
  // Trimmed before the comment is cut, so that a leading ";" follows no white space.
  return handle(name, trimEnd(cutInlineComment(trim(text.substr(separator + 1)))));
}

bool Pass::handle(const std::string& name, std::string_view value) {
  return handler_(user_, section_.c_str(), name.c_str(), std::string(value).c_str()) != 0;
}

}  // namespace

// The handler may throw, so File closes the file.
int ini_parse(const char* filename, ini_handler handler, void* user) {
  const File file(std::fopen(filename, "re"));
  return file ? Pass(handler, user).read(file.get()) : -1;
}
