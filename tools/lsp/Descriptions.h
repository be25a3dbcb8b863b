// What sections, keys and words mean, in the words of docs/configuration.md, which is embedded. Any
// thread; the texts never change. A name that the document does not describe has an empty text.
#pragma once

#include <string>
#include <string_view>

namespace lsp {

// All keys of a section, a line each.
std::string describeSection(std::string_view section);
std::string describeKey(std::string_view section, std::string_view key);
// A word of an entry, such as "CustomKey".
std::string describeWord(std::string_view word);

}  // namespace lsp
