#include "module/grpc-gateway/ParamConversion.h"

#include <cstdint>
#include <utility>

#include "module/grpc-gateway/HostAccess.h"

namespace gateway {
namespace {

using sonalith::grpcengine::AnyValue;

template <class Array, class Element>
void fillArray(Array& array, const Element* elements, std::uint64_t count) {
  array.mutable_data()->Add(elements, elements + count);
}

void fillValue(AnyValue& value, const sonalith_keyValueItem& item) {
  switch (item.type) {
    case SONALITH_ITEM_UINT:
      return value.set_suint(item.value.asUint);
    case SONALITH_ITEM_INT:
      return value.set_sint(item.value.asInt);
    case SONALITH_ITEM_FLOAT:
      return value.set_sfloat(item.value.asFloat);
    case SONALITH_ITEM_STRING:
      return value.set_sstring(stringFromHost(item.value.asString));
    case SONALITH_ITEM_UINT_ARRAY:
      return fillArray(*value.mutable_auint(), item.value.asUintArray, item.count);
    case SONALITH_ITEM_INT_ARRAY:
      return fillArray(*value.mutable_aint(), item.value.asIntArray, item.count);
    case SONALITH_ITEM_FLOAT_ARRAY:
      return fillArray(*value.mutable_afloat(), item.value.asFloatArray, item.count);
    case SONALITH_ITEM_DOUBLE:
      return value.set_sdouble(item.value.asDouble);
    default:  // A type that only a newer host knows leaves the value without a member.
      return;
  }
}

}  // namespace

void fillParam(sonalith::grpcengine::KeyValue& param, const sonalith_keyValueItem& item) {
  param.set_key(stringFromHost(item.key));
  AnyValue value;
  fillValue(value, item);
  *param.mutable_value() = std::move(value);
}

}  // namespace gateway
