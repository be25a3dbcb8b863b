// Runs `gatewayctl lsp` for configurations of the grpc-gateway module.
"use strict";

const { workspace } = require("vscode");
const { LanguageClient } = require("vscode-languageclient/node");

let client;

exports.activate = () => {
  const settings = workspace.getConfiguration("grpc-gateway");
  client = new LanguageClient(
    "grpc-gateway",
    "grpc-gateway",
    { command: settings.get("gatewayctl"), args: ["lsp"] },
    {
      documentSelector: [{ language: "grpc-gateway" }],
      initializationOptions: { target: settings.get("target") },
    },
  );
  return client.start();
};

exports.deactivate = () => client?.stop();
