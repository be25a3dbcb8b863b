// The checks of the open documents, each made when it is needed and kept until a text changes.
//
// A document that another one names in a File line is judged as part of it: by itself, it would
// lack what the other one sets.
//
// Threads: one at a time; a standin::Host must exist. Ownership: borrows the documents.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/check/Checker.h"
#include "tools/lsp/Documents.h"

namespace lsp {

class Checks {
 public:
  explicit Checks(const Documents& documents) : documents_(documents) {}

  // The text of this document has changed.
  void noteChange(const Document& document);
  // Documents have been opened or closed, or files have changed.
  void noteFiles() { kept_.clear(); }

  // A document without a check, or null. Checks of all documents are made one by one, so that the
  // editor can be heard in between.
  const Document* next() const;
  // Of the document as a main file.
  const check::Checked& of(const Document& document);

  // The documents that are main files, in the order of opening. Makes all checks.
  std::vector<const Document*> roots();
  // Those main files that read this document.
  std::vector<const Document*> rootsOf(const Document& document);

  // The name of the document in the diagnostics of a main file.
  static bool names(const std::string& file, const Document& document);
  const Documents& documents() const { return documents_; }
  // What the check of a document is asked for.
  check::Request requestOf(const Document& document) const;

 private:
  const Documents& documents_;
  std::map<const Document*, check::Checked> kept_;
};

}  // namespace lsp
