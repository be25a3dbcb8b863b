// Tests a gateway against simulated servers.
//
//   GATEWAYCTL=build/gatewayctl build/example-test/gain_test
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using nlohmann::json;

// A running gatewayctl, with pipes to its standard input and output.
class Tool {
 public:
  explicit Tool(std::vector<std::string> arguments) {
    const char* const program = getenv("GATEWAYCTL");
    arguments.insert(arguments.begin(), program != nullptr ? program : "gatewayctl");
    std::vector<char*> words;
    for (auto& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    int input[2];
    int output[2];
    // With O_CLOEXEC, other children do not keep these pipes open.
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
      throw std::runtime_error("can't make a pipe");
    }
    process_ = fork();
    if (process_ == 0) {
      dup2(input[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      execvp(words[0], words.data());
      _exit(127);
    }
    close(input[0]);
    close(output[1]);
    input_ = fdopen(input[1], "w");
    output_ = fdopen(output[0], "r");
  }
  ~Tool() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
    fclose(input_);
    fclose(output_);
  }
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;

  void tell(const std::string& line) {
    fputs((line + "\n").c_str(), input_);
    fflush(input_);
  }

  // The rest of the next line that begins with this.
  std::string waitLine(const std::string& prefix) {
    char line[1024];
    while (fgets(line, sizeof line, output_) != nullptr) {
      const std::string text(line, strcspn(line, "\n"));
      if (text.compare(0, prefix.size(), prefix) == 0) return text.substr(prefix.size());
    }
    throw std::runtime_error("gatewayctl ended before a line \"" + prefix + "\"");
  }

 private:
  pid_t process_ = 0;
  FILE* input_ = nullptr;
  FILE* output_ = nullptr;
};

// Both servers, on free ports. They send only what the test sends.
class Simulator {
 public:
  Simulator() { client_.set_read_timeout(90); }

  const std::string& meters() const { return meters_; }
  const std::string& engine() const { return engine_; }

  json post(const std::string& path, const json& body) {
    return answerTo(client_.Post("/api/" + path, body.dump(), "application/json"));
  }

  // The next event for this query.
  json wait(const std::string& query) {
    const auto path = "/api/events?wait=60&after=" + std::to_string(last_) + "&" + query;
    const json events = answerTo(client_.Get(path))["events"];
    if (events.empty()) throw std::runtime_error("no event came for " + query);
    last_ = events[0]["number"];
    return events[0];
  }

  void send(const std::string& key, float value) {
    const json level = {{"key", key}, {"type", "float"}, {"value", value}};
    post("send", {{"stream", "fast"}, {"values", {level}}});
  }

 private:
  static json answerTo(const httplib::Result& result) {
    if (!result) throw std::runtime_error("no answer: " + to_string(result.error()));
    json answer = json::parse(result->body);
    if (result->status != 200) throw std::runtime_error(answer["error"].get<std::string>());
    return answer;
  }

  Tool tool_{{"sim", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0", "--control",
              "127.0.0.1:0", "--rate-fast", "0", "--rate-slow", "0"}};
  const std::string meters_ = tool_.waitLine("meters ");
  const std::string engine_ = tool_.waitLine("engine ");
  httplib::Client client_{"http://" + tool_.waitLine("control ")};
  unsigned last_ = 0;  // the number of the latest event that was awaited
};

class Gain : public ::testing::Test {
 protected:
  Gain() {
    gateway.waitLine("fast out_level 0");  // before any level came
    simulator.wait("event=opened&stream=fast");
  }
  ~Gain() override { unlink(config.c_str()); }

  // Writes a configuration for the simulator to a new file.
  static std::string configurationFor(const Simulator& simulator) {
    char path[] = "/tmp/gain-XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << "[Meters]\nTarget=" << simulator.meters()
                        << "\n[MetersFloat]\nMeter=Key=out.level CustomKey=out_level\n"
                        << "[Engine]\nTarget=" << simulator.engine()
                        << "\n[EngineFloat]\nParam=Key=out.gain CustomKey=out_gain\n";
    return path;
  }

  Simulator simulator;
  const std::string config = configurationFor(simulator);
  // The gateway under test. Replace it with yours.
  Tool gateway{{"host", config, "--no-page", "--watch"}};
};

TEST_F(Gain, LevelReachesItsSlot) {
  simulator.send("out.level", -12.5);
  EXPECT_EQ(gateway.waitLine("fast out_level "), "-12.5");
}

TEST_F(Gain, ChangedParameterReachesTheEngineService) {
  gateway.tell("set out_gain -6.5");
  const json event = simulator.wait("event=set_params&key=out.gain");
  EXPECT_EQ(event["type"], "float");
  EXPECT_EQ(event["value"], -6.5);
}

TEST_F(Gain, GatewayComesBackAfterTheStreamHasFailed) {
  simulator.post("end", {{"stream", "fast"}, {"status", "UNAVAILABLE"}});
  simulator.wait("event=closed&stream=fast");
  simulator.wait("event=opened&stream=fast");
  simulator.send("out.level", -3);
  EXPECT_EQ(gateway.waitLine("fast out_level "), "-3");
}

}  // namespace
