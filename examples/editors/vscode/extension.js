// Runs `gatewayctl lsp` for configurations of the grpc-gateway module.
"use strict";

const { workspace } = require("vscode");
const { LanguageClient } = require("vscode-languageclient/node");

let client;

exports.activate = () => {
  const command = workspace.getConfiguration("grpc-gateway").get("gatewayctl");
  client = new LanguageClient(
    "grpc-gateway",
    "grpc-gateway",
    { command, args: ["lsp"] },
    { documentSelector: [{ language: "grpc-gateway" }] },
  );
  return client.start();
};

exports.deactivate = () => client?.stop();
