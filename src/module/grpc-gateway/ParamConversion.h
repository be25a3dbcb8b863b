// The conversion of an engine change to a parameter of a SetParams request. Any thread.
#pragma once

#include "engine.pb.h"
#include "host/sonalith.h"

namespace gateway {

// Sets the key and the value of `param`. Throws std::logic_error for a null key, which leaves the
// parameter empty, and for a null string, which leaves it without a value.
void fillParam(sonalith::grpcengine::KeyValue& param, const sonalith_keyValueItem& item);

}  // namespace gateway
