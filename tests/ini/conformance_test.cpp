// The linked reader, case by case.

#include <gtest/gtest.h>
#include <ini.h>

#include <algorithm>
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

std::string testName(const testing::TestParamInfo<Case>& info) {
  std::string name = info.param.name;
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Table, IniConformance, testing::ValuesIn(cases()), testName);

}  // namespace
}  // namespace ini::conformance
