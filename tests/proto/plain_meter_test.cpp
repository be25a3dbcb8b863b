// Reading a meter message gives what the generated parser makes of it, and reads the plain form
// without that parser.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/proto/meter_reading.h"
#include "tests/proto/wire.h"

namespace {

using gateway::readPlainMeter;
using sonalith::grpc::AnyValue;
using sonalith::grpc::KeyValue;
using sonalith::grpc::Meter;
using wire::bufferOf;

// Whether the message needs no generated parser.
bool isPlain(const std::string& bytes, std::size_t sliceSize = 0) {
  grpc::ByteBuffer buffer = bufferOf(bytes, sliceSize);
  Meter meter;
  return readPlainMeter(buffer, meter);
}

::testing::AssertionResult readsAsGenerated(const std::string& bytes, std::size_t sliceSize,
                                            Meter& meter) {
  bool isMessage = false;
  if (wire::readsAsGenerated(bytes, sliceSize, meter, isMessage)) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "in slices of " << sliceSize << " bytes";
}

KeyValue& addItem(Meter& meter, const std::string& key) {
  KeyValue& item = *meter.add_values();
  item.set_key(key);
  item.mutable_value();
  return item;
}

// Every member that is read without the generated parser, with keys of many lengths.
Meter plainMeter(std::size_t items) {
  Meter meter;
  for (std::size_t i = 0; i < items; ++i) {
    const std::string key = std::string(1 + i % 90, 'k') + "\xC3\xBC" + std::to_string(i);
    AnyValue& value = *addItem(meter, key).mutable_value();
    const auto number = static_cast<std::int32_t>(i * 2654435761u);
    if (i % 5 == 0) value.set_sfloat(static_cast<float>(number) / 3);
    if (i % 5 == 1) value.set_sint(number);
    if (i % 5 == 2) value.set_suint(static_cast<std::uint32_t>(number));
    if (i % 5 == 3) value.mutable_sstring()->set_data(std::string(i % 70, 't'));
    if (i % 5 == 4) value.set_sdouble(number / 7.0);
  }
  return meter;
}

TEST(PlainMeter, IsReadWithoutTheGeneratedParser) {
  EXPECT_TRUE(isPlain(""));
  EXPECT_TRUE(isPlain(plainMeter(1).SerializeAsString()));
  EXPECT_TRUE(isPlain(plainMeter(1000).SerializeAsString()));
}

TEST(PlainMeter, IsReadInSlicesOfEverySize) {
  const std::string bytes = plainMeter(40).SerializeAsString();
  Meter meter;
  for (std::size_t size = 1; size <= bytes.size(); ++size) {
    ASSERT_TRUE(isPlain(bytes, size)) << size;
    ASSERT_TRUE(readsAsGenerated(bytes, size, meter));
  }
}

// A length of more than 127 bytes takes two bytes.
TEST(PlainMeter, MayHaveKeysAndTextsOfEveryLength) {
  for (std::size_t size = 1; size <= 300; ++size) {
    Meter meter;
    addItem(meter, std::string(size, 'k')).mutable_value()->mutable_sstring()->set_data("t");
    addItem(meter, "x").mutable_value()->mutable_sstring()->set_data(std::string(size, 't'));
    const std::string bytes = meter.SerializeAsString();
    ASSERT_TRUE(isPlain(bytes)) << size;
    ASSERT_TRUE(readsAsGenerated(bytes, 0, meter)) << size;
  }
}

// The slices refer to the message: gRPC would join short ones that own their bytes.
TEST(PlainMeter, MayHaveEmptySlices) {
  std::string bytes = plainMeter(1).SerializeAsString();
  const auto slice = [&](std::size_t from, std::size_t size) {
    return grpc::Slice(bytes.data() + from, size, grpc::Slice::STATIC_SLICE);
  };
  const grpc::Slice slices[] = {slice(0, 0), slice(0, 0), slice(0, 3),
                                slice(3, 0), slice(3, 0), slice(3, bytes.size() - 3),
                                slice(3, 0), slice(3, 0)};
  grpc::ByteBuffer buffer(slices, std::size(slices));
  Meter meter;
  EXPECT_TRUE(readPlainMeter(buffer, meter));
  EXPECT_EQ(meter.SerializeAsString(), bytes);
}

// A message is read while the buffer holds another: afterwards nothing of that is left.
TEST(PlainMeter, ReplacesWhateverTheBufferHeld) {
  const std::string plain = plainMeter(7).SerializeAsString();
  Meter withoutText;
  for (int i = 0; i < 7; ++i) addItem(withoutText, "k").mutable_value()->mutable_sstring();
  const std::string formers[] = {
      "",
      plainMeter(20).SerializeAsString(),
      plainMeter(3).SerializeAsString(),
      plain + wire::bytes("4A 01 78"),           // an unknown field of the message,
      wire::bytes("0A 03 4A 01 78"),             // of an item,
      wire::bytes("0A 05 12 03 4A 01 78"),       // of a value,
      wire::bytes("0A 07 12 05 0A 03 4A 01 78")  // and of a text
  };
  for (const std::string& former : formers) {
    for (const std::string& next : {plain, withoutText.SerializeAsString(), std::string()}) {
      Meter meter;
      ASSERT_TRUE(meter.ParseFromString(former));
      EXPECT_TRUE(readsAsGenerated(next, 0, meter)) << wire::spelled(former);
    }
  }
}

// ---- Other forms --------------------------------------------------------------------------------

struct OtherForm {
  std::string name;
  std::string spelling;
};

std::ostream& operator<<(std::ostream& out, const OtherForm& form) {
  return out << form.name;
}

// Most differ in one detail from a key "x" with the sint 5: 0A 07 0A 01 78 12 02 18 05.
const OtherForm otherForms[] = {
    {"AnUnknownField", "0A 07 0A 01 78 12 02 18 05 10 05"},
    {"AnUnknownFieldOfAnItem", "0A 09 0A 01 78 12 02 18 05 18 05"},
    {"AnUnknownMember", "0A 07 0A 01 78 12 02 48 05"},
    {"AnUnknownFieldOfAText", "0A 0B 0A 01 78 12 06 0A 04 10 05 10 05"},
    {"AGroup", "0A 09 0A 01 78 12 02 18 05 1B 1C"},
    {"AGroupThatDoesNotEnd", "0A 08 0A 01 78 12 02 18 05 1B"},
    {"TheEndOfAGroup", "0C"},
    {"NoKey", "0A 04 12 02 18 05"},
    {"NoValue", "0A 03 0A 01 78"},
    {"NoMember", "0A 05 0A 01 78 12 00"},
    {"NothingInAnItem", "0A 00"},
    {"TheValueFirst", "0A 07 12 02 18 05 0A 01 78"},
    {"TwoKeys", "0A 0A 0A 01 78 0A 01 79 12 02 18 05"},
    {"TwoValues", "0A 0B 0A 01 78 12 02 18 05 12 02 18 06"},
    {"TwoMembers", "0A 09 0A 01 78 12 04 18 05 20 06"},
    {"TheSameMemberTwice", "0A 09 0A 01 78 12 04 18 05 18 06"},
    {"TwoTexts", "0A 0F 0A 01 78 12 0A 0A 03 0A 01 61 0A 03 0A 01 62"},
    {"TheDataOfATextTwice", "0A 0D 0A 01 78 12 08 0A 06 0A 01 61 0A 01 62"},
    {"FloatArray", "0A 0D 0A 01 78 12 08 2A 06 0A 04 00 00 80 3F"},
    {"IntArray", "0A 0D 0A 01 78 12 08 32 06 0A 04 FF FF FF FF"},
    {"UintArray", "0A 0D 0A 01 78 12 08 3A 06 0A 04 01 00 00 00"},
    {"ALongerTag", "8A 00 07 0A 01 78 12 02 18 05"},
    {"ALengthOfThreeBytes", "0A 87 80 00 0A 01 78 12 02 18 05"},
    {"ALengthOfSixBytes", "0A 87 80 80 80 80 00 0A 01 78 12 02 18 05"},
    {"ANumberOfElevenBytes", "0A 11 0A 01 78 12 0C 18 85 80 80 80 80 80 80 80 80 80 00"},
    {"ANumberThatDoesNotEnd", "0A 07 0A 01 78 12 02 18 85"},
    {"AFloatOfNoBytes", "0A 06 0A 01 78 12 01 15"},
    {"ADoubleOfNoBytes", "0A 06 0A 01 78 12 01 41"},
    {"AFloatOfThreeBytes", "0A 09 0A 01 78 12 04 15 00 00 80"},
    {"AFloatOfFiveBytes", "0A 0B 0A 01 78 12 06 15 00 00 80 3F 00"},
    {"ADoubleOfFourBytes", "0A 0A 0A 01 78 12 05 41 00 00 80 3F"},
    {"AKeyOfAnotherWireType", "0A 06 08 05 12 02 18 05"},
    {"AMemberOfAnotherWireType", "0A 0A 0A 01 78 12 05 1D 00 00 00 00"},
    {"AnItemOfAnotherWireType", "08 05"},
    {"AFieldWithTheNumberZero", "0A 07 0A 01 78 12 02 18 05 00 00"},
    {"AKeyThatIsNotUtf8", "0A 07 0A 01 FF 12 02 18 05"},
    {"ATextThatIsNotUtf8", "0A 0A 0A 01 78 12 05 0A 03 0A 01 FF"},
    {"AnItemLongerThanTheMessage", "0A 08 0A 01 78 12 02 18 05"},
    {"AKeyLongerThanItsItem", "0A 03 0A 02 78"},
    {"AValueLongerThanItsItem", "0A 07 0A 01 78 12 03 18 05"},
    {"ATextLongerThanItsValue", "0A 08 0A 01 78 12 03 0A 02 0A"},
    {"ATag", "0A"},
    {"ALengthThatDoesNotEnd", "0A 87"},
};

class OtherForms : public ::testing::TestWithParam<OtherForm> {};

TEST_P(OtherForms, AreLeftToTheGeneratedParser) {
  const wire::ErrorLog log;
  const std::string plain = plainMeter(3).SerializeAsString();
  for (const std::string& before : {std::string(), plain}) {
    const std::string message = before + wire::bytes(GetParam().spelling);
    for (const std::size_t sliceSize : {0, 1, 2, 3, 5}) {
      EXPECT_FALSE(isPlain(message, sliceSize));
      Meter meter = plainMeter(5);
      EXPECT_TRUE(readsAsGenerated(message, sliceSize, meter));
      EXPECT_TRUE(readsAsGenerated(plain, sliceSize, meter)) << "and the next message";
    }
  }
}

TEST_P(OtherForms, StayAsTheyAre) {
  const wire::ErrorLog log;
  const std::string message = wire::bytes(GetParam().spelling);
  grpc::ByteBuffer buffer = bufferOf(message, 2);
  Meter meter;
  EXPECT_FALSE(readPlainMeter(buffer, meter));
  grpc::Slice whole;
  ASSERT_TRUE(buffer.DumpToSingleSlice(&whole).ok());
  EXPECT_EQ(std::string(whole.begin(), whole.end()), message);
}

INSTANTIATE_TEST_SUITE_P(, OtherForms, ::testing::ValuesIn(otherForms),
                         [](const auto& form) { return form.param.name; });

// Otherwise long texts would stay with each item that ever had one.
TEST(PlainMeter, HasNoItemOfMoreThan1024Bytes) {
  const auto messageWith = [](std::size_t size) {
    Meter meter;
    addItem(meter, std::string(size, 'k')).mutable_value()->set_sint(1);
    return meter.SerializeAsString();
  };
  constexpr std::size_t besideTheKey = 7;
  EXPECT_TRUE(isPlain(messageWith(1024 - besideTheKey)));
  EXPECT_TRUE(isPlain(messageWith(1024 - besideTheKey), 100));
  for (const std::size_t size : {1025, 5000, 20000, 100000}) {
    const std::string message = messageWith(size - besideTheKey);
    for (const std::size_t sliceSize : {std::size_t{0}, std::size_t{1000}}) {
      EXPECT_FALSE(isPlain(message, sliceSize)) << size;
      Meter meter;
      EXPECT_TRUE(readsAsGenerated(message, sliceSize, meter)) << size;
    }
  }
}

// ---- UTF-8 --------------------------------------------------------------------------------------

void expectTheGeneratedVerdict(const std::string& key) {
  Meter meter;
  const std::string item =
      "\x0A" + std::string(1, static_cast<char>(key.size())) + key + wire::bytes("12 02 18 05");
  const std::string message = "\x0A" + std::string(1, static_cast<char>(item.size())) + item;
  ASSERT_EQ(isPlain(message), meter.ParseFromString(message)) << wire::spelled(key);
}

TEST(PlainMeter, TakesTheKeysThatAreUtf8) {
  const wire::ErrorLog log;
  const std::string ends = wire::bytes("00 7F 80 8F 90 9F A0 BF C0 FF");
  for (int lead = 0; lead < 256; ++lead) {
    for (const char second : ends) {
      for (const char third : ends) {
        for (const char fourth : ends) {
          const std::string key{static_cast<char>(lead), second, third, fourth};
          expectTheGeneratedVerdict(key);
        }
      }
    }
  }
}

// At every place of keys of every length: eight bytes are looked at together.
TEST(PlainMeter, FindsABrokenByteAnywhere) {
  const wire::ErrorLog log;
  for (std::size_t size = 1; size <= 40; ++size) {
    for (std::size_t i = 0; i < size; ++i) {
      std::string key(size, 'k');
      key[i] = '\x80';
      expectTheGeneratedVerdict(key);
    }
  }
}

}  // namespace
