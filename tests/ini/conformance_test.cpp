// The cases of src/ini/conformance.h, with the linked reader.

#include <gtest/gtest.h>
#include <ini.h>

#include <cctype>
#include <string>

#include "ini/conformance.h"
#include "tests/ini/printing.h"

namespace ini::conformance {

namespace {

class IniConformance : public testing::TestWithParam<Case> {};

TEST_P(IniConformance, ReadsAsRequired) {
  EXPECT_EQ(readBytes(ini_parse, GetParam().bytes), GetParam().expected);
}

// "an empty file is good" becomes AnEmptyFileIsGood.
std::string testName(const testing::TestParamInfo<Case>& info) {
  std::string name;
  bool beginsWord = true;
  for (const unsigned char c : info.param.name) {
    if (std::isalnum(c) != 0) name += static_cast<char>(beginsWord ? std::toupper(c) : c);
    beginsWord = std::isalnum(c) == 0;
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Table, IniConformance, testing::ValuesIn(cases()), testName);

}  // namespace
}  // namespace ini::conformance
