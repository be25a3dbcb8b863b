// Hosts from any build read and write these records, so every field must keep its place, in C as in
// C++.
#include "tests/host/layout.h"

#include <gtest/gtest.h>

#include <bit>
#include <ostream>
#include <string>
#include <vector>

#include "host/sonalith.h"

long standardOfCxx();
extern "C" long standardOfC();

namespace {

const std::vector<LayoutRow> layoutRowsOfCxx = {
#define LAYOUT_ROWS
#include "tests/host/layout-rows.inc"
#undef LAYOUT_ROWS
};

const std::vector<CodeRow> codeRowsOfCxx = {
#define CODE_ROWS
#include "tests/host/layout-rows.inc"
#undef CODE_ROWS
};

std::vector<LayoutRow> layoutRowsInC() {
  std::size_t count = 0;
  const LayoutRow* rows = layoutRowsOfC(&count);
  return {rows, rows + count};
}

std::vector<CodeRow> codeRowsInC() {
  std::size_t count = 0;
  const CodeRow* rows = codeRowsOfC(&count);
  return {rows, rows + count};
}

struct Record {
  std::string name;
  std::size_t rows;
};

// CTest uses this in the name of the test.
void PrintTo(const Record& record, std::ostream* out) {
  *out << record.name;
}

class HostLayout : public testing::TestWithParam<Record> {
 protected:
  static void expectFieldsInPlace(const std::vector<LayoutRow>& rows) {
    std::size_t found = 0;
    for (const auto& row : rows) {
      const std::string name = row.name;
      if (name.substr(0, name.find('.')) != GetParam().name) continue;
      ++found;
      EXPECT_EQ(row.offset, row.expectedOffset) << "offset of " << name;
      EXPECT_EQ(row.size, row.expectedSize) << "size of " << name;
    }
    EXPECT_EQ(found, GetParam().rows);
  }
};

void expectCodes(const std::vector<CodeRow>& rows) {
  EXPECT_EQ(rows.size(), 17U);
  for (const auto& row : rows) EXPECT_EQ(row.value, row.expected) << row.name;
}

}  // namespace

TEST(HostHeader, CompilesByItselfAsC11) {
  EXPECT_EQ(standardOfC(), 201112L);
}

TEST(HostHeader, CompilesByItselfAsCxx20) {
  EXPECT_EQ(standardOfCxx(), 202002L);
}

TEST_P(HostLayout, HasEveryFieldInPlaceInC) {
  expectFieldsInPlace(layoutRowsInC());
}

TEST_P(HostLayout, HasEveryFieldInPlaceInCxx) {
  expectFieldsInPlace(layoutRowsOfCxx);
}

INSTANTIATE_TEST_SUITE_P(Of, HostLayout,
                         testing::Values(Record{"plugin_entry", 9}, Record{"sonalith_module", 8},
                                         Record{"GatewaySlotTable", 21},
                                         Record{"sonalith_moduleOffset", 16},
                                         Record{"sonalith_keyValueItem", 13}),
                         [](const auto& record) { return record.param.name; });

TEST(HostCodes, AreTheSameInC) {
  expectCodes(codeRowsInC());
}

TEST(HostCodes, AreTheSameInCxx) {
  expectCodes(codeRowsOfCxx);
}

TEST(HostRecords, AModuleBeginsWithItsName) {
  const sonalith_module module = {"gateway", nullptr, {},      nullptr, nullptr,
                                  {},        nullptr, nullptr, nullptr, nullptr};
  EXPECT_STREQ(reinterpret_cast<const char*>(&module), "gateway");
}

TEST(HostRecords, AnItemKeeps32BitNumbersInItsLowHalf) {
  sonalith_itemValue value = {};
  value.asUint = 0xFEDCBA98;
  EXPECT_EQ(std::bit_cast<std::uint64_t>(value), 0xFEDCBA98U);
}
