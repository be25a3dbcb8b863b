// The value of one Meter or Param line: how it is split into words, what each word sets, and what
// is logged about the others.
#include "tests/module/grpc-gateway/config/config_fixture.h"

namespace gateway {
namespace {

using enum MeterEntryType;

const Line openQuote{4, "error in c_shquote_parse_argv"};

class ConfigEntry : public ConfigTest {
 protected:
  // Reads a sound file with one more line, which is line 6.
  Settings line(const std::string& section, const std::string& text) {
    return read(std::string(targets) + "[" + section + "]\n" + text + "\n");
  }
  // The same with a Meter line in MetersString, and with a Param line in EngineString.
  Settings meter(const std::string& words) { return line("MetersString", "Meter=" + words); }
  Settings param(const std::string& words) { return line("EngineString", "Param=" + words); }

  // The settings of a file whose line gave this entry.
  static Settings givesMeter(const Meter<std::string>& meter) {
    return sound({.fastMeterStrings = {meter}});
  }
  static Settings givesParam(const Param& param) { return sound({.engineStrings = {param}}); }

  // Expects that the last reading was refused and logged these lines, and then the problem.
  void expectRefusal(const Settings& settings, Lines lines) {
    EXPECT_EQ(settings, unsound());
    lines.push_back(problem(6));
    EXPECT_EQ(log(), lines);
  }
};

Line unknownInMeter(const std::string& name) {
  return {3, "unknown key " + name + " while parsing meter entry"};
}
Line unknownInEngine(const std::string& name) {
  return {3, "unknown key " + name + " while parsing engine entry"};
}
Line unknownType(const std::string& type) {
  return {3, "unknown meter type " + type + " while parsing meter entry"};
}
Line notConverted(const std::string& value) {
  return {3, "could not convert value " + value + " as default value"};
}

// ---- Fields -------------------------------------------------------------------------------------

TEST_F(ConfigEntry, AMeterMayHaveAllFourFieldsInAnyOrder) {
  EXPECT_EQ(line("MetersInt", "Meter=Key=a CustomKey=b Type=slow DefaultValue=5"),
            sound({.slowMeterInts = {{"a", "b", Slow, 5}}}));
  EXPECT_EQ(line("MetersInt", "Meter=DefaultValue=5 Type=slow CustomKey=b Key=a"),
            sound({.slowMeterInts = {{"a", "b", Slow, 5}}}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, AParamMayHaveBothFieldsInAnyOrder) {
  EXPECT_EQ(param("Key=a CustomKey=b"), givesParam({"a", "b"}));
  EXPECT_EQ(param("CustomKey=b Key=a"), givesParam({"a", "b"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, TheTypeSelectsTheListAndStaysInTheEntry) {
  for (const char* section : {"MetersString", "MetersInt", "MetersUint", "MetersFloat"}) {
    SCOPED_TRACE(section);
    EXPECT_TRUE(line(section, "Meter=Key=a Type=slow").valid);
    EXPECT_TRUE(line(section, "Meter=Key=a Type=fast").valid);
  }
  EXPECT_EQ(meter("Key=a Type=slow"), sound({.slowMeterStrings = {{.key = "a", .type = Slow}}}));
  EXPECT_EQ(meter("Key=a Type=fast"), sound({.fastMeterStrings = {{.key = "a", .type = Fast}}}));
}

TEST_F(ConfigEntry, TheLastOfRepeatedFieldsCounts) {
  EXPECT_EQ(line("MetersInt",
                 "Meter=Key=a CustomKey=b Type=fast DefaultValue=5 Key=c CustomKey=d Type=slow "
                 "DefaultValue=6"),
            sound({.slowMeterInts = {{"c", "d", Slow, 6}}}));
  EXPECT_EQ(line("MetersInt", "Meter=Key=a Type=fast Type=slow"),
            sound({.slowMeterInts = {{.key = "a", .type = Slow}}}));
  EXPECT_EQ(line("MetersInt", "Meter=Key=a Type=slow Type=fast"),
            sound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(param("Key=a CustomKey=b CustomKey=c Key=d"), givesParam({"d", "c"}));
}

TEST_F(ConfigEntry, FieldNamesMustMatchInCase) {
  expectRefusal(meter("key=a"), {unknownInMeter("key")});
  expectRefusal(meter("KEY=a"), {unknownInMeter("KEY")});
  expectRefusal(meter("Keys=a"), {unknownInMeter("Keys")});
  expectRefusal(meter("Key=a customKey=b"), {unknownInMeter("customKey")});
  expectRefusal(meter("Key=a type=fast"), {unknownInMeter("type")});
  expectRefusal(meter("Key=a Defaultvalue=b"), {unknownInMeter("Defaultvalue")});
  expectRefusal(param("key=a"), {unknownInEngine("key")});
  expectRefusal(param("Key=a customkey=b"), {unknownInEngine("customkey")});
}

TEST_F(ConfigEntry, TypesMustBeFastOrSlowInLowerCase) {
  for (const char* type : {"Fast", "SLOW", "medium", "fastest", "1", "fast "}) {
    SCOPED_TRACE(type);
    expectRefusal(meter("Key=a \"Type=" + std::string(type) + "\""), {unknownType(type)});
  }
}

TEST_F(ConfigEntry, AParamHasNeitherTypeNorDefaultValue) {
  for (const char* section : {"EngineString", "EngineInt", "EngineUint", "EngineFloat"}) {
    SCOPED_TRACE(section);
    expectRefusal(line(section, "Param=Key=a Type=fast"), {unknownInEngine("Type")});
    expectRefusal(line(section, "Param=Key=a DefaultValue=1"), {unknownInEngine("DefaultValue")});
  }
}

TEST_F(ConfigEntry, AnUnknownFieldIsRefusedInEveryMeterSection) {
  for (const char* section : {"MetersString", "MetersInt", "MetersUint", "MetersFloat"}) {
    SCOPED_TRACE(section);
    expectRefusal(line(section, "Meter=Key=a Bogus=1"), {unknownInMeter("Bogus")});
  }
}

TEST_F(ConfigEntry, AllFaultsOfALineAreLogged) {
  expectRefusal(meter("Key=a Bogus=1 Type=medium"),
                {unknownInMeter("Bogus"), unknownType("medium")});
  expectRefusal(line("MetersInt", "Meter=DefaultValue=x Type=no Bogus=1 DefaultValue=y"),
                {notConverted("x"), unknownType("no"), unknownInMeter("Bogus"), notConverted("y")});
  expectRefusal(param("Bogus=1 Key=a Worse=2"),
                {unknownInEngine("Bogus"), unknownInEngine("Worse")});
}

TEST_F(ConfigEntry, AValidWordDoesNotExcuseAnEarlierFault) {
  expectRefusal(line("MetersInt", "Meter=Key=a DefaultValue=x DefaultValue=5"),
                {notConverted("x")});
  expectRefusal(meter("Key=a Type=medium Type=fast"), {unknownType("medium")});
  expectRefusal(param("Bogus=1 Key=a"), {unknownInEngine("Bogus")});
}

// ---- Words --------------------------------------------------------------------------------------

TEST_F(ConfigEntry, AnyBlanksSeparateWords) {
  EXPECT_EQ(meter("  Key=a \t\t CustomKey=b\tDefaultValue=c  "), givesMeter({"a", "b", Fast, "c"}));
  EXPECT_EQ(param("  Key=a \t\t CustomKey=b  "), givesParam({"a", "b"}));
}

TEST_F(ConfigEntry, QuotesKeepWhiteSpaceInAWord) {
  EXPECT_EQ(meter("Key=\"a b\" CustomKey='c  d' DefaultValue=e\\ f"),
            givesMeter({"a b", "c  d", Fast, "e f"}));
  EXPECT_EQ(meter("\"Key=a b\" 'CustomKey=c\td'"), givesMeter({"a b", "c\td", Fast, ""}));
  EXPECT_EQ(param("Key=\" a \""), givesParam({" a ", ""}));
}

TEST_F(ConfigEntry, AQuotedEqualsSignSplitsAWordToo) {
  EXPECT_EQ(meter("Key\"=\"a CustomKey'=b' DefaultValue=\"c=d\""),
            givesMeter({"a", "b", Fast, "c"}));
  EXPECT_EQ(param("Key\\=a"), givesParam({"a", ""}));
}

TEST_F(ConfigEntry, TextAfterASecondEqualsSignIsDropped) {
  EXPECT_EQ(meter("Key=a=b CustomKey=c=d=e DefaultValue=f==g"), givesMeter({"a", "c", Fast, "f"}));
  EXPECT_EQ(line("MetersInt", "Meter=Key=a=Type Type=slow=x DefaultValue=5=6"),
            sound({.slowMeterInts = {{"a", "", Slow, 5}}}));
  EXPECT_EQ(param("Key=a=b"), givesParam({"a", ""}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, AWordWithoutAnEqualsSignIsSkipped) {
  EXPECT_EQ(meter("foo Key=a Type DefaultValue"), givesMeter({.key = "a"}));
  EXPECT_EQ(param("foo Key=a Type"), givesParam({.key = "a"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, AnEntryMayHaveHundredsOfWords) {
  std::string words;
  for (int i = 0; i < 450; ++i) words += "x ";
  EXPECT_EQ(meter(words + "Key=a CustomKey=b"), givesMeter({.key = "a", .customKey = "b"}));
  EXPECT_EQ(param(words + "Key=a CustomKey=b"), givesParam({.key = "a", .customKey = "b"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, AWordThatEndsInAnEqualsSignIsSkipped) {
  EXPECT_EQ(meter("Key=a CustomKey=b Key= CustomKey=c= Type= DefaultValue= Bogus= Bogus=d="),
            givesMeter({.key = "a", .customKey = "b"}));
  EXPECT_EQ(line("MetersInt", "Meter=Key=a DefaultValue= Type=no="),
            sound({.fastMeterInts = {{.key = "a"}}}));
  EXPECT_EQ(meter("Key=a = == Key=="), givesMeter({.key = "a"}));
  EXPECT_EQ(param("Key=a Key= Key=b= = == Bogus= Key=="), givesParam({.key = "a"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, AnEmptyWordIsSkipped) {
  EXPECT_EQ(meter("\"\" Key=a ''"), givesMeter({.key = "a"}));
  EXPECT_EQ(param("'' Key=a \"\""), givesParam({.key = "a"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, TwoEqualsSignsGiveAnEmptyValue) {
  EXPECT_EQ(meter("Key=a CustomKey=b CustomKey==x DefaultValue=c DefaultValue==5"),
            givesMeter({.key = "a"}));
  EXPECT_EQ(param("Key=a CustomKey=b CustomKey==x"), givesParam({.key = "a"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigEntry, AnEmptyKeyValueIsRefusedByTheVerification) {
  EXPECT_EQ(meter("Key=a Key==x"), unsound({.fastMeterStrings = {{}}}));
  EXPECT_EQ(param("Key=a Key==x"), unsound({.engineStrings = {{}}}));
}

TEST_F(ConfigEntry, AnEmptyValueIsRefusedAsANumberAndAsAType) {
  expectRefusal(line("MetersInt", "Meter=Key=a DefaultValue==5"), {notConverted("")});
  expectRefusal(line("MetersUint", "Meter=Key=a DefaultValue==5"), {notConverted("")});
  expectRefusal(line("MetersFloat", "Meter=Key=a DefaultValue==5"), {notConverted("")});
  expectRefusal(meter("Key=a Type==fast"), {unknownType("")});
}

TEST_F(ConfigEntry, AWordThatBeginsWithAnEqualsSignIsAnUnknownField) {
  expectRefusal(meter("Key=a =x"), {unknownInMeter("")});
  expectRefusal(meter("Key=a ==x"), {unknownInMeter("")});
  expectRefusal(param("Key=a =x"), {unknownInEngine("")});
}

TEST_F(ConfigEntry, AHashStartsACommentOnlyAtTheStartOfAWord) {
  EXPECT_EQ(meter("Key=a#b"), givesMeter({.key = "a#b"}));
  EXPECT_EQ(meter("Key=a #b"), givesMeter({.key = "a"}));
  EXPECT_EQ(meter("Key=a #Key=b Type=slow Bogus=1"), givesMeter({.key = "a"}));
  EXPECT_EQ(meter("Key=a CustomKey=\"#b #c\""), givesMeter({.key = "a", .customKey = "#b #c"}));
  EXPECT_EQ(param("Key=a#b"), givesParam({.key = "a#b"}));
  EXPECT_EQ(param("Key=a #CustomKey=b"), givesParam({.key = "a"}));
}

// ---- Lines without a field ----------------------------------------------------------------------

// The line itself is good; the verification refuses the entry.
TEST_F(ConfigEntry, AMeterWithoutFieldsIsAnEmptyEntry) {
  const Lines emptyKey{{3, "MeterEntry Key field can't be empty"},
                       {1, "MeterEntry string settings verification failed!"}};
  for (const char* words : {"", "#x", "foo", "Key=", "\"\"", " ;comment"}) {
    SCOPED_TRACE(words);
    const std::string text = std::string("Meter=") + words;
    EXPECT_EQ(line("MetersString", text), unsound({.fastMeterStrings = {{}}}));
    EXPECT_EQ(log(), emptyKey);
    EXPECT_EQ(line("MetersInt", text), unsound({.fastMeterInts = {{}}}));
    EXPECT_EQ(log(), emptyKey);
    EXPECT_EQ(line("MetersUint", text), unsound({.fastMeterUints = {{}}}));
    EXPECT_EQ(log(), emptyKey);
    EXPECT_EQ(line("MetersFloat", text), unsound({.fastMeterFloats = {{}}}));
    EXPECT_EQ(log(), emptyKey);
  }
}

TEST_F(ConfigEntry, AParamWithoutFieldsIsAnEmptyEntry) {
  const Lines emptyKey{{3, "EngineEntry Key field can't be empty"},
                       {1, "EngineEntry string settings verification failed!"}};
  for (const char* words : {"", "#x", "foo", "Key=", "\"\"", " ;comment"}) {
    SCOPED_TRACE(words);
    const std::string text = std::string("Param=") + words;
    EXPECT_EQ(line("EngineString", text), unsound({.engineStrings = {{}}}));
    EXPECT_EQ(log(), emptyKey);
    EXPECT_EQ(line("EngineInt", text), unsound({.engineInts = {{}}}));
    EXPECT_EQ(log(), emptyKey);
    EXPECT_EQ(line("EngineUint", text), unsound({.engineUints = {{}}}));
    EXPECT_EQ(log(), emptyKey);
    EXPECT_EQ(line("EngineFloat", text), unsound({.engineFloats = {{}}}));
    EXPECT_EQ(log(), emptyKey);
  }
}

// ---- Open quotes --------------------------------------------------------------------------------

TEST_F(ConfigEntry, AnOpenQuoteMakesTheLineBad) {
  expectRefusal(meter("Key=\"a"), {openQuote});
  expectRefusal(meter("Key=a CustomKey='b"), {openQuote});
  expectRefusal(meter("Bogus=1 Key=\"a\\\""), {openQuote});
  expectRefusal(param("Key=\"a"), {openQuote});
  expectRefusal(param("Key='"), {openQuote});
}

TEST_F(ConfigEntry, AnOpenQuoteIsRefusedInEverySection) {
  for (const char* section : {"MetersString", "MetersInt", "MetersUint", "MetersFloat"}) {
    SCOPED_TRACE(section);
    expectRefusal(line(section, "Meter=Key='a"), {openQuote});
  }
  for (const char* section : {"EngineString", "EngineInt", "EngineUint", "EngineFloat"}) {
    SCOPED_TRACE(section);
    expectRefusal(line(section, "Param=Key='a"), {openQuote});
  }
}

// The reader cuts off the comment first, which leaves the quote open.
TEST_F(ConfigEntry, ASemicolonAfterABlankCutsEvenAQuotedValue) {
  expectRefusal(meter("Key=\"a ;b\""), {openQuote});
  expectRefusal(param("Key=\"a ;b\""), {openQuote});
  EXPECT_EQ(meter("Key=\"a;b\""), givesMeter({.key = "a;b"}));
}

}  // namespace
}  // namespace gateway
