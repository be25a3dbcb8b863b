// For tests of gatewayctl discover: the built program listens to a simulator, and the test says
// what the simulator sends.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/support/SimProcess.h"

class DiscoverTest : public GatewayTest {
 protected:
  struct Result {
    int exitCode = -1;
    std::string output;
    std::string errors;
  };

  // Longer than any run takes: discover ends early when both streams have ended.
  static constexpr const char* longTime = "3600";

  static Result resultOf(ToolProcess& tool) {
    Result result;
    result.exitCode = tool.waitExit();
    for (const std::string& line : tool.lines()) result.output += line + "\n";
    result.errors = tool.errors();
    return result;
  }

  static Result run(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"discover"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ToolProcess tool(all);
    return resultOf(tool);
  }

  // Listens while the simulator carries out the commands, which should end both streams.
  Result hear(const std::vector<std::string>& commands,
              const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments{"discover", servers.metersTarget(), "--for", longTime};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ToolProcess tool(arguments);
    ++runs_;
    servers.waitEvent("open fast " + std::to_string(runs_) + " ");
    servers.waitEvent("open slow " + std::to_string(runs_) + " ");
    for (const std::string& command : commands) servers.command(command);
    return resultOf(tool);
  }

  // The commands of a whole run: batches on both streams, then the end of both.
  static std::vector<std::string> sending(const std::vector<Batch>& fast,
                                          const std::vector<Batch>& slow) {
    std::vector<std::string> commands;
    for (const Batch& batch : fast) commands.push_back("send fast " + batch.hex());
    for (const Batch& batch : slow) commands.push_back("send slow " + batch.hex());
    commands.emplace_back("end fast OK");
    commands.emplace_back("end slow OK");
    return commands;
  }

  // The remark on a stream that the server ended with OK.
  static std::string remarkOfEnd(const std::string& rate, int messages) {
    return "the server ended the " + rate + " stream after " + std::to_string(messages) +
           (messages == 1 ? " message" : " messages") +
           ". It should keep the stream open and write a message whenever it has values.";
  }

  // How the configuration of such a run begins.
  static std::string remarks(int fastMessages, int slowMessages) {
    return std::string(
               "; What a meter server sent within 3600 seconds, written by gatewayctl "
               "discover.\n; ") +
           remarkOfEnd("fast", fastMessages) + "\n; " + remarkOfEnd("slow", slowMessages) + "\n\n";
  }

  std::string settings(const std::string& fast = "true", const std::string& slow = "true") const {
    return "[Meters]\nTarget=" + servers.metersTarget() + "\nEnableFastMeters=" + fast +
           "\nEnableSlowMeters=" + slow + "\n";
  }

  SimProcess servers;

 private:
  int runs_ = 0;
};
