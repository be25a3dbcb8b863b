#include "tools/sim/MeterJson.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

#include "meters.pb.h"
#include "tools/common/Json.h"

namespace sim {
namespace {

using nlohmann::json;
using sonalith::grpc::AnyValue;

[[noreturn]] void refuse(const json& value, std::string_view wanted) {
  throw std::invalid_argument(
      fmt::format("in \"values\": {} is not {}", tools::jsonText(value), wanted));
}

std::string textIn(const json& value) {
  if (!value.is_string()) refuse(value, "a text");
  return value.get<std::string>();
}

// The library's own comparison would take numbers above the signed range as negative.
template <class Integer>
Integer integerIn(const json& value) {
  using Limits = std::numeric_limits<Integer>;
  const bool isLarge =
      value.is_number_unsigned() && value.get<std::uint64_t>() > std::uint64_t{Limits::max()};
  const bool fits = value.is_number_integer() && !isLarge &&
                    value.get<std::int64_t>() >= std::int64_t{Limits::min()} &&
                    value.get<std::int64_t>() <= std::int64_t{Limits::max()};
  if (!fits) {
    refuse(value, fmt::format("a whole number from {} to {}", Limits::min(), Limits::max()));
  }
  return value.get<Integer>();
}

// JSON has no numbers for NaN and the infinities, so these are texts, as in reports.
template <class Number>
Number numberIn(const json& value) {
  using Limits = std::numeric_limits<Number>;
  if (value.is_number() && std::abs(value.get<double>()) <= double{Limits::max()}) {
    return static_cast<Number>(value.get<double>());
  }
  if (value == "nan") return Limits::quiet_NaN();
  if (value == "inf") return Limits::infinity();
  if (value == "-inf") return -Limits::infinity();
  refuse(value, R"(a number, "nan", "inf" or "-inf")");
}

template <class Array, class Read>
void addAll(Array& array, const json& values, Read read) {
  if (!values.is_array()) refuse(values, "a list of numbers");
  for (const auto& value : values) array.add_data(read(value));
}

struct TypeRow {
  std::string_view name;
  void (*set)(AnyValue& to, const json& value);
};

constexpr auto types = std::to_array<TypeRow>({
    {"string", [](auto& to, auto& value) { to.mutable_sstring()->set_data(textIn(value)); }},
    {"int", [](auto& to, auto& value) { to.set_sint(integerIn<std::int32_t>(value)); }},
    {"uint", [](auto& to, auto& value) { to.set_suint(integerIn<std::uint32_t>(value)); }},
    {"float", [](auto& to, auto& value) { to.set_sfloat(numberIn<float>(value)); }},
    {"double", [](auto& to, auto& value) { to.set_sdouble(numberIn<double>(value)); }},
    {"floats", [](auto& to, auto& value) { addAll(*to.mutable_afloat(), value, numberIn<float>); }},
    {"ints",
     [](auto& to, auto& value) { addAll(*to.mutable_aint(), value, integerIn<std::int32_t>); }},
    {"uints",
     [](auto& to, auto& value) { addAll(*to.mutable_auint(), value, integerIn<std::uint32_t>); }},
    {"nothing",
     [](auto&, auto& value) {
       if (!value.is_null()) refuse(value, "null");
     }},
});

const TypeRow& typeCalled(const json& name) {
  std::string names;
  for (const auto& row : types) {
    if (name == row.name) return row;
    names += fmt::format("{}{}", names.empty() ? "" : ", ", row.name);
  }
  refuse(name, "a type. Types are " + names);
}

void addValue(sonalith::grpc::Meter& meter, const json& item) {
  if (!item.is_object() || !item.contains("key") || !item.contains("type")) {
    refuse(item, R"(a value, such as {"key": "out.level", "type": "float", "value": -6.5})");
  }
  auto& entry = *meter.add_values();
  entry.set_key(textIn(item["key"]));
  const auto& type = typeCalled(item["type"]);
  type.set(*entry.mutable_value(), item.value("value", json()));
}

}  // namespace

std::string meterIn(const json& values) {
  if (!values.is_array()) refuse(values, "a list of values");
  sonalith::grpc::Meter meter;
  for (const auto& item : values) addValue(meter, item);
  return meter.SerializeAsString();
}

}  // namespace sim
