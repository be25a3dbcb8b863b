// A terminal in which a test runs a program, presses keys and reads the screen.
//
// Threads: one at a time.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

class Tmux {
 public:
  // Runs a shell command in a terminal of this size, whose locale is UTF-8. The terminal loses what
  // the command writes right before it ends.
  Tmux(const std::string& command, int columns, int rows)
      : server_({"-u", "-D", "-S", socket(), "-f", configuration()}, "/usr/bin/tmux") {
    waitUntil([&] { return std::filesystem::exists(socket()); }, "the server's socket");
    run({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(rows), "-e",
         "LC_ALL=C.UTF-8", command});
  }
  // Ending the server ends its terminal, which ends the program.
  ~Tmux() = default;
  Tmux(const Tmux&) = delete;
  Tmux& operator=(const Tmux&) = delete;

  // Presses a key, by tmux's name for it, such as "Down", "C-c" or "q".
  void press(const std::string& key) { run({"send-keys", key}); }
  void type(const std::string& text) { run({"send-keys", "-l", text}); }
  void resize(int columns, int rows) {
    run({"resize-window", "-x", std::to_string(columns), "-y", std::to_string(rows)});
  }

  // The lines of the screen, without blanks at their ends.
  std::vector<std::string> lines() { return run({"capture-pane", "-p"}); }
  std::string screen() { return joined(lines()); }
  // The same with the escape sequences of colours and attributes.
  std::string colouredScreen() { return joined(run({"capture-pane", "-p", "-e"})); }
  // A variable of tmux, such as "pane_title".
  std::string fact(const std::string& name) {
    return joined(run({"display-message", "-p", "#{" + name + "}"}));
  }

  // Waits until the screen contains this text, and returns the screen.
  std::string waitFor(const std::string& text) {
    waitUntil([&] { return screen().find(text) != std::string::npos; }, text);
    return screen();
  }
  void waitWithout(const std::string& text) {
    waitUntil([&] { return screen().find(text) == std::string::npos; }, "no " + text);
  }

 private:
  std::string socket() const { return files_.path("socket"); }
  std::string configuration() const {
    return files_.write("conf", "set -g remain-on-exit on\nset -s escape-time 0\n");
  }

  std::vector<std::string> run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-u", "-S", socket()});
    ToolProcess client(arguments, "/usr/bin/tmux");
    if (client.waitExit() != 0) throw std::runtime_error("tmux failed: " + client.errors());
    return client.lines();
  }

  static std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + line;
    return text;
  }

  // Polls, because a terminal reports no changes.
  template <class Condition>
  void waitUntil(const Condition& condition, const std::string& wanted) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) {
        throw std::runtime_error("waited for: " + wanted + "\nThe screen:\n" + screen());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  const TemporaryFolder files_;
  ToolProcess server_;
};
