// The vocabulary of tests in which several module instances each have a meter server, so that they
// all wait out their five seconds at the same time.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "tests/module/grpc-gateway/flows/FlowTest.h"

// The shortest time until a stream that has ended is opened again. It is less than five seconds
// because gRPC reads two clocks, one after the other, to convert the time of an alarm: the time
// between the two readings makes the alarm early.
constexpr std::chrono::milliseconds retryDelay{4990};

// The longest time until then. It is generous, because the machine may be under load, and a channel
// that has lost its server reconnects in its own time.
constexpr std::chrono::milliseconds latestRetry{30'000};

using Clock = std::chrono::steady_clock;

inline std::chrono::milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

// A module instance with a meter server of its own.
class Stream {
 public:
  Stream(const standin::LoadedModule& module, standin::Engine& engine, const TemporaryFolder& files,
         const std::string& name, std::unique_ptr<SimProcess> server, const std::string& target,
         const ServerProgram& program = {})
      : program_(program),
        server_(std::move(server)),
        target_(target),
        instance_(module, engine, name) {
    const std::string path = files.write(
        name + ".conf", "[Meters]\nTarget=" + target +
                            "\n[MetersInt]\nMeter=Key=i Type=fast CustomKey=i DefaultValue=1\n"
                            "Meter=Key=i Type=slow CustomKey=i DefaultValue=1\n"
                            "[MetersString]\nMeter=Key=last.one Type=fast CustomKey=last_one\n"
                            "Meter=Key=last.one Type=slow CustomKey=last_one\n");
    if (instance_.start(path) != 0) throw std::runtime_error(name + " did not start");
    if (!server_) return;
    server_->waitEvent("open fast 1 ");
    server_->waitEvent("open slow 1 ");
  }

  SimProcess& server() { return *server_; }
  standin::ModuleInstance& instance() { return instance_; }
  const std::string& target() const { return target_; }

  // The server dies; a server starts at the same target, again or for the first time.
  void killServer() { server_->kill(); }
  void startServer() {
    server_ = std::make_unique<SimProcess>(target_, SimProcess::anyPort, program_);
  }

  void send(const std::string& set, const Batch& batch) {
    server_->command("send " + set + " " + batch.hex());
  }
  standin::SlotValue read(standin::SlotSet set, const std::string& name) {
    return instance_.slot(set, name).read();
  }

 private:
  const ServerProgram program_;
  std::unique_ptr<SimProcess> server_;
  std::string target_;
  standin::ModuleInstance instance_;
};

class StreamTest : public GatewayTest {
 protected:
  std::unique_ptr<Stream> open(const std::string& name, const ServerProgram& program = {}) {
    auto server = std::make_unique<SimProcess>(SimProcess::anyPort, SimProcess::anyPort, program);
    const std::string target = server->metersTarget();
    return std::make_unique<Stream>(module, engine, files, name, std::move(server), target,
                                    program);
  }
  std::unique_ptr<Stream> openWithoutServer(const std::string& name) {
    return std::make_unique<Stream>(module, engine, files, name, nullptr, unusedTarget());
  }

  // The time from `start` until the server sees an attempt such as "fast 2".
  static std::future<std::chrono::milliseconds> opening(Stream& stream, const std::string& attempt,
                                                        Clock::time_point start) {
    return std::async(std::launch::async, [&stream, attempt, start] {
      stream.server().waitEvent("open " + attempt + " ");
      return since(start);
    });
  }

  // Sends a batch and returns when the module has processed it, which its mark in a slot shows.
  void deliver(Stream& stream, standin::SlotSet set, Batch batch, const std::string& mark) {
    stream.send(std::string(nameOf(set)), batch.addString("last.one", mark));
    ASSERT_TRUE(
        host.waitUntil([&] { return stream.read(set, "last_one") == standin::SlotValue(mark); }));
  }
};
