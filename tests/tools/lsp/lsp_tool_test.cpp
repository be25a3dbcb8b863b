// The program as editors run it. One of them is Neovim, with the files that examples/editors gives
// its users.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/FileText.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace {

const std::string tests = LSP_TESTS_FOLDER;
const std::string editors = EDITORS_FOLDER;

// The server's program is found in the PATH, as users have it.
std::vector<std::string> commandOf(const std::string& script, const std::string& file,
                                   const std::string& home) {
  const std::string program = GATEWAYCTL_PATH;
  return {"PATH=" + program.substr(0, program.rfind('/')) + ":/usr/bin:/bin",
          "HOME=" + home,
          "XDG_CONFIG_HOME=" + home,
          "XDG_DATA_HOME=" + home,
          "XDG_STATE_HOME=" + home,
          "XDG_CACHE_HOME=" + home,
          NEOVIM_PATH,
          "--headless",
          "-i",
          "NONE",
          "--cmd",
          "set noswapfile runtimepath^=" + editors + "/vim",
          "-u",
          editors + "/neovim.lua",
          "-c",
          "luafile " + script,
          file};
}

const std::string initialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"capabilities":{}}})";
const std::string shutdown = R"({"jsonrpc":"2.0","id":2,"method":"shutdown"})";
const std::string exit = R"({"jsonrpc":"2.0","method":"exit"})";

void writeMessages(ToolProcess& tool, const std::vector<std::string>& messages) {
  for (const std::string& message : messages) {
    tool.write("Content-Length: " + std::to_string(message.size()) + "\r\n\r\n" + message);
  }
}

TEST(LspTool, EndsWithTheExitCodeOfTheProtocol) {
  ToolProcess silent({"lsp"});
  silent.closeInput();
  EXPECT_EQ(silent.waitExit(), 1);
  EXPECT_EQ(silent.errors(), "");

  ToolProcess tool({"lsp", "--stdio"});
  writeMessages(tool, {initialize, shutdown, exit});
  EXPECT_EQ(tool.waitExit(), 0);
  EXPECT_EQ(tool.errors(), "");
}

TEST(LspTool, ListensToTheTargetOfTheCommandLineOnceTheEditorIsReady) {
  SimProcess server;
  ToolProcess tool({"lsp", "--target", server.metersTarget()});
  writeMessages(tool, {initialize, R"({"jsonrpc":"2.0","method":"initialized","params":{}})"});
  server.waitEvent("open fast 1 ");
  server.waitEvent("open slow 1 ");
  writeMessages(tool, {shutdown, exit});
  EXPECT_EQ(tool.waitExit(), 0);
  EXPECT_EQ(tool.errors(), "");
}

TEST(LspTool, ReportsWrongUse) {
  ToolProcess tool({"lsp", "gateway.conf"});
  EXPECT_EQ(tool.waitExit(), 2);
}

TEST(Neovim, ShowsDiagnosticsAndMakesRepairs) {
  const TemporaryFolder folder;
  const std::string file =
      folder.write("gateway.conf",
                   "[Meter]\nTarget=localhost:50005\n[MetersFloat]\n"
                   "Meter=Key=\xC3\xA4\xF0\x9F\x98\x80 Type=SLOW CustomKey=level\n");
  ToolProcess neovim(commandOf(tests + "/neovim.lua", file, folder.path("")), "/usr/bin/env");
  EXPECT_EQ(neovim.waitExit(), 0) << neovim.errors();
  EXPECT_EQ(neovim.lines(),
            (std::vector<std::string>{
                "filetype grpc-gateway",
                "syntax gatewayUnknownSection gatewayKey gatewayWord",
                "diagnostic 0 unknown-section",
                "diagnostic 3 unknown-type",
                "quickfix Replace \"[Meter]\" with \"[Meters]\"",
                "hover `level`: the slow float slot at position 0 of its list, with the "
                "default 0.0; its key is `\xC3\xA4\xF0\x9F\x98\x80`",
                "saved",
            }));
  EXPECT_EQ(textOf(file),
            "[Meters]\nTarget=localhost:50005\n[MetersFloat]\n"
            "Meter=Key=\xC3\xA4\xF0\x9F\x98\x80 Type=slow CustomKey=level\n");
}

}  // namespace
