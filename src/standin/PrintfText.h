// Formats arguments as printf does: the whole text, and the text of each argument by itself.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

namespace standin {

struct PrintfText {
  std::string text;
  // One for each conversion, in order, as it appears in the text. "%%" takes no argument.
  std::vector<std::string> arguments;
};

// Leaves `arguments` indeterminate, as vprintf does. Any thread.
PrintfText printfText(const char* format, va_list arguments);

}  // namespace standin
