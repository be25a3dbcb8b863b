// The texts that the editor has open, saved or not.
//
// Threads: one at a time. Ownership: documents stay where they are until they are closed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tools/lsp/Positions.h"
#include "tools/lsp/Rpc.h"

namespace lsp {

// The path of a "file:" URI, or the URI itself for any other.
std::string pathOf(const std::string& uri);
std::string uriOf(const std::string& path);

// Both throw RpcError for anything else than a position or a range.
Position positionIn(const Json& json);
Json jsonOf(Position position);

class Document {
 public:
  Document(std::string uri, std::string text, Encoding encoding);
  // The places refer to the text.
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  const std::string& uri() const { return uri_; }
  const std::string& path() const { return path_; }
  const std::string& text() const { return text_; }
  const Places& places() const { return places_; }

  std::size_t offsetOf(const Json& position) const;
  // The first and the last offset of a range, in this order even if the range has them swapped.
  std::pair<std::size_t, std::size_t> offsetsOf(const Json& range) const;
  Json rangeOf(std::size_t begin, std::size_t end) const;
  // The byte at a column of a line, both counted from 1 as diagnostics count them.
  std::size_t offsetAt(std::size_t line, std::size_t column) const;

  // Replaces a part of the text, or all of it, as an item of "contentChanges" says.
  void change(const Json& change);

  Json version = nullptr;   // as the editor counts
  std::uint64_t order = 0;  // among all documents, by the time of opening

 private:
  const std::string uri_;
  const std::string path_;
  const Encoding encoding_;
  std::string text_;
  Places places_;
};

class Documents {
 public:
  static constexpr std::size_t textLimit = std::size_t{64} << 20;  // bytes of a document

  Encoding encoding = Encoding::Utf16;

  // Each takes the params of its notification. Throws RpcError: for a text that is too large, for a
  // document that is not open, and for params that are not as the protocol has them.
  Document& open(const Json& params);
  // Closes a document that has become too large.
  Document& change(const Json& params);
  std::string close(const Json& params);  // returns its URI

  // The document of "textDocument" in the params. Throws RpcError if it is not open.
  Document& of(const Json& params);
  // Null if the file is not open, by any of its names.
  const Document* at(const std::string& path) const;

  // In the order of opening.
  const std::list<Document>& all() const { return documents_; }

 private:
  std::list<Document>::iterator find(const std::string& uri);

  std::list<Document> documents_;
  std::uint64_t opened_ = 0;
};

}  // namespace lsp
