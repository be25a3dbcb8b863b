// A pass whose handler throws.

#include <gtest/gtest.h>
#include <ini.h>

#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "ini/conformance.h"
#include "tests/ini/descriptors.h"
#include "tests/ini/printing.h"

namespace ini::conformance {
namespace {

int throwAtValueThrow(void* user, const char* section, const char* name, const char* value) {
  if (std::string_view(value) == "throw") throw std::bad_alloc();
  return recordPair(user, section, name, value);
}

void expectExceptionAndClosedFile(const std::string& bytes) {
  const TemporaryFile file(bytes);
  std::vector<Pair> seen;
  const auto before = openDescriptors();
  EXPECT_THROW(ini_parse(file.path().c_str(), throwAtValueThrow, &seen), std::bad_alloc);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(seen, (std::vector<Pair>{{"s", "a", "1"}}));
}

TEST(IniException, FromAPairEndsThePassAndClosesTheFile) {
  expectExceptionAndClosedFile("[s]\na=1\nb=throw\nc=3\n");
}

TEST(IniException, FromAContinuationEndsThePassAndClosesTheFile) {
  expectExceptionAndClosedFile("[s]\na=1\n throw\nc=3\n");
}

int throwInside(void* innerPath, const char*, const char*, const char*) {
  return ini_parse(static_cast<const char*>(innerPath), throwAtValueThrow, nullptr);
}

TEST(IniException, FromANestedPassClosesBothFiles) {
  const TemporaryFile inner("a=throw\n");
  const TemporaryFile outer("b=1\n");
  std::string innerPath = inner.path();
  const auto before = openDescriptors();
  EXPECT_THROW(ini_parse(outer.path().c_str(), throwInside, innerPath.data()), std::bad_alloc);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace ini::conformance
