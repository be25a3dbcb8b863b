// DefaultValue in each section: which texts it accepts, and which value each of them gives.
#include <cmath>
#include <limits>
#include <optional>

#include "tests/module/grpc-gateway/config/config_fixture.h"

namespace gateway {
namespace {

constexpr std::nullopt_t refused = std::nullopt;

class ConfigDefault : public ConfigTest {
 protected:
  std::optional<std::string> asString(const std::string& text) {
    return converted("MetersString", &Settings::fastMeterStrings, text);
  }
  std::optional<std::int32_t> asInt(const std::string& text) {
    return converted("MetersInt", &Settings::fastMeterInts, text);
  }
  std::optional<std::uint32_t> asUint(const std::string& text) {
    return converted("MetersUint", &Settings::fastMeterUints, text);
  }
  std::optional<float> asFloat(const std::string& text) {
    return converted("MetersFloat", &Settings::fastMeterFloats, text);
  }

 private:
  // The default value that a text gives in a section. Nothing if the text is refused; then the
  // refusal is logged and no entry is kept.
  template <class T>
  std::optional<T> converted(const std::string& section, std::vector<Meter<T>> Settings::*list,
                             const std::string& text) {
    const Settings settings = read(std::string(targets) + "[" + section +
                                   "]\nMeter=Key=a \"DefaultValue=" + text + "\"\n");
    if (!settings.valid) {
      EXPECT_EQ(settings, unsound()) << text;
      EXPECT_EQ(log(),
                (Lines{{3, "could not convert value " + text + " as default value"}, problem(6)}));
      return std::nullopt;
    }
    EXPECT_EQ(log(), Lines{}) << text;
    EXPECT_EQ((settings.*list).size(), 1U) << text;
    return (settings.*list).at(0).defaultValue;
  }
};

TEST_F(ConfigDefault, AStringIsKeptUnchanged) {
  const std::string longText(600, 'x');
  EXPECT_EQ(asString("not ready"), "not ready");
  EXPECT_EQ(asString(" 5 "), " 5 ");
  EXPECT_EQ(asString("\xC3\xA4\xFF"), "\xC3\xA4\xFF");
  EXPECT_EQ(asString(longText), longText);
}

TEST_F(ConfigDefault, AnIntHasTheRangeOf32Bits) {
  EXPECT_EQ(asInt("0"), 0);
  EXPECT_EQ(asInt("2147483647"), 2147483647);
  EXPECT_EQ(asInt("2147483648"), refused);
  EXPECT_EQ(asInt("-2147483648"), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(asInt("-2147483649"), refused);
  EXPECT_EQ(asInt("99999999999999999999"), refused);
  EXPECT_EQ(asInt("-99999999999999999999"), refused);
}

TEST_F(ConfigDefault, AnIntMayBeginWithWhiteSpaceAndASign) {
  EXPECT_EQ(asInt("  7"), 7);
  EXPECT_EQ(asInt("\t-7"), -7);
  EXPECT_EQ(asInt("+7"), 7);
  EXPECT_EQ(asInt("- 7"), refused);
  EXPECT_EQ(asInt("+-7"), refused);
}

TEST_F(ConfigDefault, AnIntIsDecimal) {
  EXPECT_EQ(asInt("010"), 10);
  EXPECT_EQ(asInt("0x10"), 0);
}

TEST_F(ConfigDefault, AnIntIgnoresTextAfterItsDigits) {
  EXPECT_EQ(asInt("12abc"), 12);
  EXPECT_EQ(asInt("7.9"), 7);
  EXPECT_EQ(asInt("3 4"), 3);
}

TEST_F(ConfigDefault, AnIntThatDoesNotBeginWithDigitsIsRefused) {
  EXPECT_EQ(asInt("x"), refused);
  EXPECT_EQ(asInt("a12"), refused);
  EXPECT_EQ(asInt("-"), refused);
  EXPECT_EQ(asInt(" "), refused);
  EXPECT_EQ(asInt(".5"), refused);
}

TEST_F(ConfigDefault, AUintHasTheRangeOf32Bits) {
  EXPECT_EQ(asUint("0"), 0U);
  EXPECT_EQ(asUint("2147483648"), 2147483648U);
  EXPECT_EQ(asUint("4294967295"), 4294967295U);
}

TEST_F(ConfigDefault, AUintIsSilentlyCutToItsLow32Bits) {
  EXPECT_EQ(asUint("4294967296"), 0U);
  EXPECT_EQ(asUint("4294967297"), 1U);
  EXPECT_EQ(asUint("18446744073709551615"), 4294967295U);
  EXPECT_EQ(asUint("18446744073709551614"), 4294967294U);
}

TEST_F(ConfigDefault, ANegativeUintWraps) {
  EXPECT_EQ(asUint("-1"), 4294967295U);
  EXPECT_EQ(asUint("-4294967295"), 1U);
  EXPECT_EQ(asUint("-18446744073709551615"), 1U);
}

TEST_F(ConfigDefault, AUintOutside64BitsIsRefused) {
  EXPECT_EQ(asUint("18446744073709551616"), refused);
  EXPECT_EQ(asUint("-18446744073709551616"), refused);
  EXPECT_EQ(asUint("99999999999999999999999"), refused);
}

TEST_F(ConfigDefault, AUintIsOtherwiseReadLikeAnInt) {
  EXPECT_EQ(asUint("  +7"), 7U);
  EXPECT_EQ(asUint("010"), 10U);
  EXPECT_EQ(asUint("0x10"), 0U);
  EXPECT_EQ(asUint("12abc"), 12U);
  EXPECT_EQ(asUint("x"), refused);
  EXPECT_EQ(asUint("-"), refused);
  EXPECT_EQ(asUint("a12"), refused);
}

TEST_F(ConfigDefault, AFloatMayHaveAPointAndAnExponent) {
  EXPECT_EQ(asFloat("-60.5"), -60.5F);
  EXPECT_EQ(asFloat("5"), 5.0F);
  EXPECT_EQ(asFloat("5."), 5.0F);
  EXPECT_EQ(asFloat(".5"), 0.5F);
  EXPECT_EQ(asFloat("+1e3"), 1000.0F);
  EXPECT_EQ(asFloat("25E-2"), 0.25F);
  EXPECT_EQ(asFloat(" \t0.1"), 0.1F);
}

TEST_F(ConfigDefault, AFloatMayBeHexadecimal) {
  EXPECT_EQ(asFloat("0x10"), 16.0F);
  EXPECT_EQ(asFloat("-0x1.8p-2"), -0.375F);
}

TEST_F(ConfigDefault, AFloatMayBeInfinite) {
  constexpr float infinity = std::numeric_limits<float>::infinity();
  EXPECT_EQ(asFloat("inf"), infinity);
  EXPECT_EQ(asFloat("-INF"), -infinity);
  EXPECT_EQ(asFloat("Infinity"), infinity);
}

TEST_F(ConfigDefault, AFloatMayBeNan) {
  const std::optional<float> value = asFloat("nan");
  ASSERT_TRUE(value.has_value());
  EXPECT_TRUE(std::isnan(*value));
}

TEST_F(ConfigDefault, AFloatKeepsTheSignOfZero) {
  const std::optional<float> value = asFloat("-0");
  EXPECT_EQ(value, 0.0F);
  EXPECT_TRUE(value.has_value() && std::signbit(*value));
}

TEST_F(ConfigDefault, AFloatIgnoresTextAfterTheNumber) {
  EXPECT_EQ(asFloat("1.5abc"), 1.5F);
  EXPECT_EQ(asFloat("1,5"), 1.0F);
  EXPECT_EQ(asFloat("2 3"), 2.0F);
  EXPECT_EQ(asFloat("3e"), 3.0F);
}

TEST_F(ConfigDefault, AFloatThatDoesNotBeginWithANumberIsRefused) {
  EXPECT_EQ(asFloat("abc"), refused);
  EXPECT_EQ(asFloat("e5"), refused);
  EXPECT_EQ(asFloat("."), refused);
  EXPECT_EQ(asFloat("-"), refused);
}

TEST_F(ConfigDefault, AFloatBeyondItsRangeIsRefused) {
  EXPECT_EQ(asFloat("3.40282347e38"), std::numeric_limits<float>::max());
  EXPECT_EQ(asFloat("-3.40282347e38"), std::numeric_limits<float>::lowest());
  EXPECT_EQ(asFloat("3.5e38"), refused);
  EXPECT_EQ(asFloat("-1e39"), refused);
  EXPECT_EQ(asFloat("1e999"), refused);
}

TEST_F(ConfigDefault, AFloatTooSmallForItsRangeIsRefused) {
  // Just below that, processors disagree: some judge the exact number, others the rounded one.
  EXPECT_EQ(asFloat("1.1754944e-38"), std::numeric_limits<float>::min());
  EXPECT_EQ(asFloat("1e-46"), refused);
  EXPECT_EQ(asFloat("-1e-46"), refused);
  EXPECT_EQ(asFloat("1e-999"), refused);
  EXPECT_EQ(asFloat("0e-999"), 0.0F);
}

// Below the normal range a float has fewer digits, and losing some counts as an underflow.
TEST_F(ConfigDefault, AFloatSoSmallThatItLosesDigitsIsRefused) {
  EXPECT_EQ(asFloat("1e-40"), refused);
  EXPECT_EQ(asFloat("0x1p-149"), std::numeric_limits<float>::denorm_min());
}

}  // namespace
}  // namespace gateway
