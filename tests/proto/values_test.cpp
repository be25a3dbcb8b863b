// The messages that both packages define under the same names. They are different C++ types, but
// identical on the wire, except for the member sstring.
#include <limits>

#include "tests/proto/wire.h"

namespace {

using wire::expectUnknown;
using wire::expectUnknownFrom;
using wire::isReadable;
using wire::read;
using wire::rewritten;
using wire::shown;
using wire::shownArray;
using wire::shownPair;
using wire::written;

struct Meters {
  using FloatArray = sonalith::grpc::FloatArray;
  using IntArray = sonalith::grpc::IntArray;
  using UintArray = sonalith::grpc::UintArray;
  using AnyValue = sonalith::grpc::AnyValue;
  using KeyValue = sonalith::grpc::KeyValue;
  static constexpr char name[] = "sonalith.grpc.";
};

struct Engine {
  using FloatArray = sonalith::grpcengine::FloatArray;
  using IntArray = sonalith::grpcengine::IntArray;
  using UintArray = sonalith::grpcengine::UintArray;
  using AnyValue = sonalith::grpcengine::AnyValue;
  using KeyValue = sonalith::grpcengine::KeyValue;
  static constexpr char name[] = "sonalith.grpcengine.";
};

static_assert(!std::is_same_v<Meters::FloatArray, Engine::FloatArray>);
static_assert(!std::is_same_v<Meters::IntArray, Engine::IntArray>);
static_assert(!std::is_same_v<Meters::UintArray, Engine::UintArray>);
static_assert(!std::is_same_v<Meters::AnyValue, Engine::AnyValue>);
static_assert(!std::is_same_v<Meters::KeyValue, Engine::KeyValue>);

template <class Package>
class Values : public testing::Test {
  static_assert(wire::isLite<typename Package::FloatArray>);
  static_assert(wire::isLite<typename Package::IntArray>);
  static_assert(wire::isLite<typename Package::UintArray>);
  static_assert(wire::isLite<typename Package::AnyValue>);
  static_assert(wire::isLite<typename Package::KeyValue>);
};

struct PackageNames {
  template <class Package>
  static std::string GetName(int) {
    return std::is_same_v<Package, Meters> ? "Meters" : "Engine";
  }
};

using Packages = testing::Types<Meters, Engine>;
TYPED_TEST_SUITE(Values, Packages, PackageNames);

TYPED_TEST(Values, AreNamedByTheirPackage) {
  const std::string package = TypeParam::name;
  EXPECT_EQ(typename TypeParam::FloatArray().GetTypeName(), package + "FloatArray");
  EXPECT_EQ(typename TypeParam::IntArray().GetTypeName(), package + "IntArray");
  EXPECT_EQ(typename TypeParam::UintArray().GetTypeName(), package + "UintArray");
  EXPECT_EQ(typename TypeParam::AnyValue().GetTypeName(), package + "AnyValue");
  EXPECT_EQ(typename TypeParam::KeyValue().GetTypeName(), package + "KeyValue");
}

// ---- Arrays -------------------------------------------------------------------------------------

template <class Array, class T>
Array arrayOf(std::initializer_list<T> elements) {
  Array array;
  for (const T element : elements) array.add_data(element);
  return array;
}

TYPED_TEST(Values, ArraysArePackedWithFourBytesPerElement) {
  EXPECT_EQ(written(arrayOf<typename TypeParam::FloatArray>({1.0F, 2.0F})),
            "0A 08 00 00 80 3F 00 00 00 40");
  EXPECT_EQ(written(arrayOf<typename TypeParam::IntArray>({-1, 2})),
            "0A 08 FF FF FF FF 02 00 00 00");
  EXPECT_EQ(written(arrayOf<typename TypeParam::UintArray>({1U, 0x80000000U})),
            "0A 08 01 00 00 00 00 00 00 80");
  EXPECT_EQ(written(arrayOf<typename TypeParam::IntArray>({0})), "0A 04 00 00 00 00");
}

TYPED_TEST(Values, PackedArraysAreReadable) {
  EXPECT_EQ(shownArray(read<typename TypeParam::FloatArray>("0A 08 00 00 80 3F 00 00 00 40")),
            "[ 1 2 ]");
  EXPECT_EQ(shownArray(read<typename TypeParam::IntArray>("0A 08 FF FF FF FF 02 00 00 00")),
            "[ -1 2 ]");
  EXPECT_EQ(shownArray(read<typename TypeParam::UintArray>("0A 08 01 00 00 00 FF FF FF FF")),
            "[ 1 4294967295 ]");
}

TYPED_TEST(Values, UnpackedArraysAreReadButWrittenPacked) {
  EXPECT_EQ(shownArray(read<typename TypeParam::FloatArray>("0D 00 00 80 3F 0D 00 00 00 40")),
            "[ 1 2 ]");
  EXPECT_EQ(rewritten<typename TypeParam::FloatArray>("0D 00 00 80 3F 0D 00 00 00 40"),
            "0A 08 00 00 80 3F 00 00 00 40");
  EXPECT_EQ(shownArray(read<typename TypeParam::IntArray>("0D FF FF FF FF 0D 02 00 00 00")),
            "[ -1 2 ]");
  EXPECT_EQ(rewritten<typename TypeParam::IntArray>("0D FF FF FF FF 0D 02 00 00 00"),
            "0A 08 FF FF FF FF 02 00 00 00");
  EXPECT_EQ(shownArray(read<typename TypeParam::UintArray>("0D 01 00 00 00 0D 02 00 00 00")),
            "[ 1 2 ]");
  EXPECT_EQ(rewritten<typename TypeParam::UintArray>("0D 01 00 00 00 0D 02 00 00 00"),
            "0A 08 01 00 00 00 02 00 00 00");
}

TYPED_TEST(Values, PackedAndUnpackedPartsFormOneArray) {
  EXPECT_EQ(
      rewritten<typename TypeParam::IntArray>("0A 04 01 00 00 00 0D 02 00 00 00 0A 04 03 00 00 00"),
      "0A 0C 01 00 00 00 02 00 00 00 03 00 00 00");
}

TYPED_TEST(Values, AnArrayWithoutElementsWritesNothing) {
  EXPECT_EQ(written(typename TypeParam::FloatArray()), "");
  EXPECT_EQ(written(typename TypeParam::IntArray()), "");
  EXPECT_EQ(written(typename TypeParam::UintArray()), "");
  EXPECT_EQ(rewritten<typename TypeParam::FloatArray>("0A 00"), "");
  EXPECT_EQ(rewritten<typename TypeParam::IntArray>("0A 00"), "");
  EXPECT_EQ(rewritten<typename TypeParam::UintArray>("0A 00"), "");
}

TYPED_TEST(Values, ArraysHaveNoFieldsButTheirElements) {
  for (const int wireType : {0, 1}) {
    expectUnknown<typename TypeParam::FloatArray>(1, wireType);
    expectUnknown<typename TypeParam::IntArray>(1, wireType);
    expectUnknown<typename TypeParam::UintArray>(1, wireType);
  }
  expectUnknownFrom<typename TypeParam::FloatArray>(2);
  expectUnknownFrom<typename TypeParam::IntArray>(2);
  expectUnknownFrom<typename TypeParam::UintArray>(2);
}

TYPED_TEST(Values, UnknownFieldsOfAnArrayAreWrittenAfterIt) {
  EXPECT_EQ(rewritten<typename TypeParam::IntArray>("10 05 08 06 0D 01 00 00 00"),
            "0A 04 01 00 00 00 10 05 08 06");
}

// ---- AnyValue -----------------------------------------------------------------------------------

// The bytes of an AnyValue and their meaning.
struct Encoding {
  const char* bytes;
  const char* value;
};

constexpr Encoding encodings[] = {
    {"", "0"},
    {"15 00 00 00 3F", "2 sfloat 0.5"},
    {"15 00 00 00 00", "2 sfloat 0"},
    {"18 AC 02", "3 sint 300"},
    {"18 FF FF FF FF FF FF FF FF FF 01", "3 sint -1"},
    {"18 80 80 80 80 F8 FF FF FF FF 01", "3 sint -2147483648"},
    {"18 FF FF FF FF 07", "3 sint 2147483647"},
    {"18 00", "3 sint 0"},
    {"20 FF FF FF FF 0F", "4 suint 4294967295"},
    {"20 00", "4 suint 0"},
    {"2A 0A 0A 08 00 00 80 3F 00 00 00 40", "5 afloat [ 1 2 ]"},
    {"2A 00", "5 afloat [ ]"},
    {"32 0A 0A 08 FF FF FF FF 02 00 00 00", "6 aint [ -1 2 ]"},
    {"32 00", "6 aint [ ]"},
    {"3A 0A 0A 08 01 00 00 00 02 00 00 00", "7 auint [ 1 2 ]"},
    {"3A 00", "7 auint [ ]"},
    {"41 00 00 00 00 00 00 F8 3F", "8 sdouble 1.5"},
    {"41 00 00 00 00 00 00 00 00", "8 sdouble 0"},
};

TYPED_TEST(Values, AnAnyValueIsReadByItsSetMember) {
  for (const Encoding& encoding : encodings) {
    EXPECT_EQ(shown(read<typename TypeParam::AnyValue>(encoding.bytes)), encoding.value)
        << encoding.bytes;
  }
}

// A set member is written even if it is zero.
TYPED_TEST(Values, AnAnyValueIsWrittenWithItsSetMember) {
  for (const Encoding& encoding : encodings) {
    EXPECT_EQ(rewritten<typename TypeParam::AnyValue>(encoding.bytes), encoding.bytes);
  }
}

TYPED_TEST(Values, AnAnyValueIsWrittenWithTheLastMemberSet) {
  typename TypeParam::AnyValue value;
  EXPECT_EQ(written(value), "");
  value.set_sfloat(0.5F);
  EXPECT_EQ(written(value), "15 00 00 00 3F");
  value.set_sint(-1);
  EXPECT_EQ(written(value), "18 FF FF FF FF FF FF FF FF FF 01");
  value.set_suint(std::numeric_limits<std::uint32_t>::max());
  EXPECT_EQ(written(value), "20 FF FF FF FF 0F");
  value.mutable_afloat()->add_data(1.0F);
  EXPECT_EQ(written(value), "2A 06 0A 04 00 00 80 3F");
  value.mutable_aint()->add_data(-1);
  EXPECT_EQ(written(value), "32 06 0A 04 FF FF FF FF");
  value.mutable_auint()->add_data(1);
  EXPECT_EQ(written(value), "3A 06 0A 04 01 00 00 00");
  value.set_sdouble(1.5);
  EXPECT_EQ(written(value), "41 00 00 00 00 00 00 F8 3F");
  value.set_sint(0);
  EXPECT_EQ(written(value), "18 00");
}

TYPED_TEST(Values, TheLastOfTwoMembersWins) {
  using AnyValue = typename TypeParam::AnyValue;
  EXPECT_EQ(shown(read<AnyValue>("15 00 00 80 3F 18 05")), "3 sint 5");
  EXPECT_EQ(rewritten<AnyValue>("15 00 00 80 3F 18 05"), "18 05");
  EXPECT_EQ(shown(read<AnyValue>("18 05 15 00 00 80 3F")), "2 sfloat 1");
  EXPECT_EQ(shown(read<AnyValue>("2A 06 0A 04 00 00 80 3F 20 07")), "4 suint 7");
  EXPECT_EQ(shown(read<AnyValue>("18 05 18 06")), "3 sint 6");
}

TYPED_TEST(Values, TwoArraysOfOneMemberMerge) {
  using AnyValue = typename TypeParam::AnyValue;
  EXPECT_EQ(shown(read<AnyValue>("2A 06 0A 04 00 00 80 3F 2A 06 0A 04 00 00 00 40")),
            "5 afloat [ 1 2 ]");
  EXPECT_EQ(shown(read<AnyValue>("32 06 0A 04 01 00 00 00 32 06 0A 04 02 00 00 00")),
            "6 aint [ 1 2 ]");
  EXPECT_EQ(rewritten<AnyValue>("3A 06 0A 04 01 00 00 00 3A 06 0A 04 02 00 00 00"),
            "3A 0A 0A 08 01 00 00 00 02 00 00 00");
}

TYPED_TEST(Values, AMemberInBetweenPreventsMerging) {
  EXPECT_EQ(shown(read<typename TypeParam::AnyValue>(
                "2A 06 0A 04 00 00 80 3F 18 05 2A 06 0A 04 00 00 00 40")),
            "5 afloat [ 2 ]");
}

// The wire types that a member does not have, indexed by its number.
constexpr std::initializer_list<int> strangeTypes[] = {
    {}, {0, 1, 5}, {0, 1, 2}, {1, 2, 5}, {1, 2, 5}, {0, 1, 5}, {0, 1, 5}, {0, 1, 5}, {0, 2, 5}};

TYPED_TEST(Values, AMemberOfAnotherWireTypeIsUnknownAndChangesNothing) {
  using AnyValue = typename TypeParam::AnyValue;
  for (int number = 1; number <= 8; ++number) {
    for (const int wireType : strangeTypes[number]) {
      const std::string strange = wire::emptyField(number, wireType);
      EXPECT_EQ(shown(read<AnyValue>(strange)), "0") << strange;
      EXPECT_EQ(rewritten<AnyValue>(strange), strange);
      EXPECT_EQ(shown(read<AnyValue>("20 07 " + strange)), "4 suint 7") << strange;
      EXPECT_EQ(rewritten<AnyValue>(strange + " 20 07"), "20 07 " + strange);
    }
  }
}

TYPED_TEST(Values, AnAnyValueHasEightMembers) {
  using AnyValue = typename TypeParam::AnyValue;
  expectUnknownFrom<AnyValue>(9);
  for (int number = 9; number < 16; ++number) {
    EXPECT_EQ(shown(read<AnyValue>(wire::emptyField(number, 0))), "0") << number;
  }
}

// ---- KeyValue -----------------------------------------------------------------------------------

TYPED_TEST(Values, AKeyValueIsReadAndWritten) {
  using KeyValue = typename TypeParam::KeyValue;
  KeyValue pair;
  pair.set_key("gain");
  pair.mutable_value()->set_sfloat(0.5F);
  EXPECT_EQ(written(pair), "0A 04 67 61 69 6E 12 05 15 00 00 00 3F");
  EXPECT_EQ(shownPair(read<KeyValue>("0A 04 67 61 69 6E 12 05 15 00 00 00 3F")),
            "\"gain\": 2 sfloat 0.5");
}

TYPED_TEST(Values, AKeyValueIsWrittenInTheOrderOfItsNumbers) {
  EXPECT_EQ(rewritten<typename TypeParam::KeyValue>("12 02 18 05 0A 01 61"),
            "0A 01 61 12 02 18 05");
}

TYPED_TEST(Values, AnEmptyKeyIsNotWritten) {
  using KeyValue = typename TypeParam::KeyValue;
  EXPECT_EQ(rewritten<KeyValue>("0A 00 12 02 18 05"), "12 02 18 05");
  EXPECT_EQ(shownPair(read<KeyValue>("12 02 18 05")), "\"\": 3 sint 5");
  EXPECT_EQ(rewritten<KeyValue>("0A 00"), "");
}

TYPED_TEST(Values, AnAbsentValueIsNotAnEmptyOne) {
  using KeyValue = typename TypeParam::KeyValue;
  EXPECT_EQ(shownPair(read<KeyValue>("0A 01 61")), "\"a\": absent");
  EXPECT_EQ(rewritten<KeyValue>("0A 01 61"), "0A 01 61");
  EXPECT_EQ(shownPair(read<KeyValue>("0A 01 61 12 00")), "\"a\": 0");
  EXPECT_EQ(rewritten<KeyValue>("0A 01 61 12 00"), "0A 01 61 12 00");
}

TYPED_TEST(Values, TheLastOfTwoKeysWinsAndTwoValuesMerge) {
  using KeyValue = typename TypeParam::KeyValue;
  EXPECT_EQ(shownPair(read<KeyValue>("0A 01 61 12 02 18 05 0A 01 62 12 02 20 06")),
            "\"b\": 4 suint 6");
  EXPECT_EQ(shownPair(read<KeyValue>("12 08 2A 06 0A 04 00 00 80 3F "
                                     "12 08 2A 06 0A 04 00 00 00 40")),
            "\"\": 5 afloat [ 1 2 ]");
}

TYPED_TEST(Values, AKeyValueHasNoFieldsButKeyAndValue) {
  for (const int wireType : {0, 1, 5}) {
    expectUnknown<typename TypeParam::KeyValue>(1, wireType);
    expectUnknown<typename TypeParam::KeyValue>(2, wireType);
  }
  expectUnknownFrom<typename TypeParam::KeyValue>(3);
}

TYPED_TEST(Values, UnknownFieldsOfAKeyValueAreWrittenAfterIt) {
  EXPECT_EQ(rewritten<typename TypeParam::KeyValue>("18 05 08 06 12 02 18 07 0A 01 61"),
            "0A 01 61 12 02 18 07 18 05 08 06");
}

TYPED_TEST(Values, AKeyMustBeUtf8ToBeRead) {
  using KeyValue = typename TypeParam::KeyValue;
  const wire::ErrorLog log;
  EXPECT_EQ(read<KeyValue>("0A 02 C3 A4").key(), "\xC3\xA4");
  EXPECT_FALSE(isReadable<KeyValue>("0A 01 FF"));
  EXPECT_FALSE(isReadable<KeyValue>("0A 02 C3 28"));
  EXPECT_FALSE(isReadable<KeyValue>("12 02 18 05 0A 01 E4"));
}

TYPED_TEST(Values, AKeyThatIsNotUtf8IsReportedButWritten) {
  const wire::ErrorLog log;
  typename TypeParam::KeyValue pair;
  pair.set_key("\xFF");
  EXPECT_EQ(written(pair), "0A 01 FF");
  EXPECT_EQ(log.fields(), std::vector<std::string>{std::string(TypeParam::name) + "KeyValue.key"});
}

}  // namespace
