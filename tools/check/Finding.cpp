#include "tools/check/Finding.h"

#include <fmt/format.h>

namespace check {

Remedy write(Span place, std::string text, std::string_view after) {
  return {fmt::format("write {}{}", text, after), place, std::move(text)};
}

Remedy ask(Span place, std::string text) {
  return {fmt::format("did you mean {}?", text), place, std::move(text)};
}

Remedy remove(Span place, std::string_view what) {
  return {fmt::format("remove {}", what), place, {}};
}

Remedy safe(Remedy remedy) {
  if (remedy.edit) remedy.edit->isSafe = true;
  return remedy;
}

std::string nameOf(const SourceLine& line) {
  return line.file->isDedicated() ? fmt::format("{}:{}", line.file->name, line.number)
                                  : fmt::format("line {}", line.number);
}

std::string nameOf(const SourceLine& line, const SourceLine& from) {
  if (line.file == from.file) return fmt::format("line {}", line.number);
  return fmt::format("{}:{}", line.file->name, line.number);
}

std::string_view consequenceIn(const SourceFile& file) {
  return file.isDedicated() ? "the module skips the line" : "the module refuses the file";
}

}  // namespace check
