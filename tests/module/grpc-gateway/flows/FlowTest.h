// The vocabulary of tests in which the loaded module talks to servers in another process.
#pragma once

#include <string>
#include <utility>

#include "engine.pb.h"
#include "meters.pb.h"
#include "tests/module/grpc-gateway/GatewayTest.h"
#include "tests/support/SimProcess.h"

// A message of a meter stream, built value by value.
class Batch {
 public:
  Batch& addString(const std::string& key, const std::string& value) {
    return add(key, [&](auto& any) { any.mutable_sstring()->set_data(value); });
  }
  Batch& addFloat(const std::string& key, float value) {
    return add(key, [&](auto& any) { any.set_sfloat(value); });
  }
  Batch& addInt(const std::string& key, std::int32_t value) {
    return add(key, [&](auto& any) { any.set_sint(value); });
  }
  Batch& addUint(const std::string& key, std::uint32_t value) {
    return add(key, [&](auto& any) { any.set_suint(value); });
  }
  // `fill` sets any member of the new value.
  template <class Fill>
  Batch& add(const std::string& key, Fill fill) {
    auto& item = *meter_.add_values();
    item.set_key(key);
    fill(*item.mutable_value());
    return *this;
  }
  Batch& addWithoutValue(const std::string& key) {
    meter_.add_values()->set_key(key);
    return *this;
  }

  std::string hex() const { return toHex(meter_); }

 private:
  sonalith::grpc::Meter meter_;
};

// A request that the engine service receives, built parameter by parameter.
class Request {
 public:
  template <class Fill>
  Request& add(const std::string& key, Fill fill) {
    auto& param = *request_.add_params();
    param.set_key(key);
    fill(*param.mutable_value());
    return *this;
  }
  Request& addFloat(const std::string& key, float value) {
    return add(key, [&](auto& any) { any.set_sfloat(value); });
  }
  Request& addInt(const std::string& key, std::int32_t value) {
    return add(key, [&](auto& any) { any.set_sint(value); });
  }
  Request& addUint(const std::string& key, std::uint32_t value) {
    return add(key, [&](auto& any) { any.set_suint(value); });
  }
  Request& addString(const std::string& key, const std::string& value) {
    return add(key, [&](auto& any) { any.set_sstring(value); });
  }
  std::string hex() const { return toHex(request_); }

 private:
  sonalith::grpcengine::RequestSetParams request_;
};

// Both targets, and a string slot of each rate that shows a test which message has been processed.
inline std::string flowConfiguration(const std::string& metersTarget,
                                     const std::string& engineTarget) {
  return "[Meters]\nTarget=" + metersTarget + "\n[Engine]\nTarget=" + engineTarget +
         "\n[MetersString]\nMeter=Key=last.one Type=fast CustomKey=last_one\n"
         "Meter=Key=last.one Type=slow CustomKey=last_one\n";
}

class FlowTest : public GatewayTest {
 protected:
  explicit FlowTest(const ServerProgram& program = {})
      : servers(SimProcess::anyPort, SimProcess::anyPort, program) {}

  using Text = std::string;

  std::string common() const {
    return flowConfiguration(servers.metersTarget(), servers.engineTarget());
  }

  // Starts with additional entries and returns when both streams are open at the server.
  void startFlowing(const std::string& entries = "") {
    ASSERT_EQ(start(common() + entries), 0);
    servers.waitEvent("open fast ");
    servers.waitEvent("open slow ");
  }

  // Sends a batch on a stream and returns when the module has processed all of it. The module
  // writes values in the order of the message; the last one is a string, for which it calls the
  // host.
  void deliver(standin::SlotSet set, Batch batch) {
    const std::string mark = "batch " + std::to_string(++batches_);
    batch.addString("last.one", mark);
    servers.command("send " + std::string(nameOf(set)) + " " + batch.hex());
    ASSERT_TRUE(host.waitUntil([&] { return read(set, "last_one") == standin::SlotValue(mark); }));
  }
  void deliverFast(Batch batch) { deliver(standin::SlotSet::Fast, std::move(batch)); }
  void deliverSlow(Batch batch) { deliver(standin::SlotSet::Slow, std::move(batch)); }

  void notify(standin::KeyValueList& changes) { engine.notify(&changes); }

  // The request of the next call, as the service received it.
  std::string received() {
    const std::string event = servers.waitEvent("SetParams ");
    const std::size_t begin = event.find(' ', sizeof("SetParams ") - 1) + 1;
    return event.substr(begin, event.find(' ', begin) - begin);
  }

  standin::SlotValue read(standin::SlotSet set, const std::string& name) const {
    return instance.slot(set, name).read();
  }
  standin::SlotValue fast(const std::string& name) const {
    return read(standin::SlotSet::Fast, name);
  }
  standin::SlotValue slow(const std::string& name) const {
    return read(standin::SlotSet::Slow, name);
  }

  SimProcess servers;

 private:
  int batches_ = 0;
};
