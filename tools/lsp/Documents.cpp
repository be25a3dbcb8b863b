#include "tools/lsp/Documents.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "tools/check/Overlay.h"

namespace lsp {
namespace {

constexpr std::string_view fileScheme = "file://";

bool isPlainInUri(unsigned char c) {
  return std::isalnum(c) != 0 ||
         std::string_view("-._~/").find(static_cast<char>(c)) != std::string_view::npos;
}

std::string decoded(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    const char* const digits = text.data() + i + 1;
    const bool isEscape = text[i] == '%' && i + 2 < text.size() + 0 &&
                          std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2;
    plain += isEscape ? static_cast<char>(value) : text[i];
    if (isEscape) i += 2;
  }
  return plain;
}

std::size_t countIn(const Json& json, const char* member) {
  const Json& count = json.at(member);
  if (!count.is_number_integer() || (count.is_number_integer() && count < 0)) {
    throw RpcError(ErrorCode::InvalidParams,
                   fmt::format("\"{}\" must be an integer that is not negative", member));
  }
  return count.get<std::size_t>();
}

void requireSize(std::size_t size) {
  if (size <= Documents::textLimit) return;
  throw RpcError(ErrorCode::InvalidParams,
                 fmt::format("a text of {} bytes, which is more than the {} allowed", size,
                             Documents::textLimit));
}

}  // namespace

std::string pathOf(const std::string& uri) {
  if (!uri.starts_with(fileScheme)) return uri;
  const std::string_view rest = std::string_view(uri).substr(fileScheme.size());
  // What precedes the path is the name of this machine.
  const std::size_t path = rest.find('/');
  return path == rest.npos ? uri : decoded(rest.substr(path));
}

std::string uriOf(const std::string& path) {
  std::error_code error;
  const std::string absolute = std::filesystem::absolute(path, error);
  std::string uri(fileScheme);
  for (const char c : error ? path : absolute) {
    const auto byte = static_cast<unsigned char>(c);
    uri += isPlainInUri(byte) ? std::string(1, c) : fmt::format("%{:02X}", byte);
  }
  return uri;
}

Position positionIn(const Json& json) {
  return {countIn(json, "line"), countIn(json, "character")};
}

Json jsonOf(Position position) {
  return {{"line", position.line}, {"character", position.character}};
}

// ---- A document -------------------------------------------------------------------------------

Document::Document(std::string uri, std::string text, Encoding encoding)
    : uri_(std::move(uri)),
      path_(pathOf(uri_)),
      encoding_(encoding),
      text_(std::move(text)),
      places_(text_, encoding) {}

std::size_t Document::offsetOf(const Json& position) const {
  return places_.offsetOf(positionIn(position));
}

std::pair<std::size_t, std::size_t> Document::offsetsOf(const Json& range) const {
  return std::minmax({offsetOf(range.at("start")), offsetOf(range.at("end"))});
}

Json Document::rangeOf(std::size_t begin, std::size_t end) const {
  return {{"start", jsonOf(places_.positionOf(begin))}, {"end", jsonOf(places_.positionOf(end))}};
}

std::size_t Document::offsetAt(std::size_t line, std::size_t column) const {
  return std::min(places_.startOf(line - 1) + column - 1, text_.size());
}

void Document::change(const Json& change) {
  std::string text = change.at("text").get<std::string>();
  if (const auto range = change.find("range"); range != change.end()) {
    const auto [begin, end] = offsetsOf(*range);
    requireSize(text_.size() - (end - begin) + text.size());
    text_.replace(begin, end - begin, text);
    places_.replace(begin, end, text_, text.size());
  } else {
    requireSize(text.size());
    text_ = std::move(text);
    places_ = Places(text_, encoding_);
  }
}

// ---- All documents ----------------------------------------------------------------------------

std::list<Document>::iterator Documents::find(const std::string& uri) {
  return std::find_if(documents_.begin(), documents_.end(),
                      [&](const Document& each) { return each.uri() == uri; });
}

Document& Documents::of(const Json& params) {
  const auto uri = params.at("textDocument").at("uri").get<std::string>();
  const auto found = find(uri);
  if (found == documents_.end()) {
    throw RpcError(ErrorCode::InvalidParams, fmt::format("{} is not open", uri));
  }
  return *found;
}

const Document* Documents::at(const std::string& path) const {
  const auto found = std::find_if(documents_.begin(), documents_.end(), [&](const Document& each) {
    return check::isSameFile(each.path(), path);
  });
  return found == documents_.end() ? nullptr : &*found;
}

Document& Documents::open(const Json& params) {
  const Json& item = params.at("textDocument");
  auto uri = item.at("uri").get<std::string>();
  auto text = item.at("text").get<std::string>();
  requireSize(text.size());
  if (const auto known = find(uri); known != documents_.end()) documents_.erase(known);
  Document& document = documents_.emplace_back(std::move(uri), std::move(text), encoding);
  document.version = item.value("version", Json());
  document.order = ++opened_;
  return document;
}

Document& Documents::change(const Json& params) {
  Document& document = of(params);
  try {
    for (const Json& change : params.at("contentChanges")) document.change(change);
  } catch (const std::exception&) {
    // Its text is no longer the editor's. Nothing is better than wrong diagnostics.
    documents_.erase(find(document.uri()));
    throw;
  }
  document.version = params.at("textDocument").value("version", Json());
  return document;
}

std::string Documents::close(const Json& params) {
  std::string uri = of(params).uri();
  documents_.erase(find(uri));
  return uri;
}

}  // namespace lsp
