// What the server offers, a source file each. Every function turns a document and its check into
// the answer that the protocol describes, and changes nothing.
//
// Threads: one at a time, for the sake of Checks.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/lsp/Checks.h"
#include "tools/lsp/Documents.h"
#include "tools/lsp/MeterServer.h"
#include "tools/lsp/Rpc.h"

namespace lsp {

// What the editor has said that it understands.
struct Client {
  bool showsRelatedInformation = false;
  bool readsMarkdown = false;
  bool takesLiteralActions = false;
  bool takesVersionedEdits = false;
  bool takesNestedSymbols = false;
  bool watchesFiles = false;
};

// ---- Diagnostics ------------------------------------------------------------------------------

// A diagnostic of a document, as the check has it and as the editor gets it.
struct Shown {
  check::Diagnostic diagnostic;
  Json json;
};

// Those of one document, which may be a dedicated file of several main files.
std::vector<Shown> diagnosticsOf(const Document& document, Checks& checks, const Client& client);

// All diagnostics by URI: of each open document, and of files that open documents name.
std::map<std::string, Json> allDiagnostics(const Documents& documents, Checks& checks,
                                           const Client& client);

// ---- Answers ----------------------------------------------------------------------------------

Json hover(const Document& document, Checks& checks, const Client& client, const Json& params);
// `server` is null if there is none to take keys from.
Json completion(const Document& document, Checks& checks, const MeterServer* server,
                const Json& params);
Json codeActions(const Document& document, Checks& checks, const Client& client,
                 const Json& params);
Json symbols(const Document& document, const Client& client);
Json definition(const Document& document, const Documents& documents, const Json& params);

}  // namespace lsp
