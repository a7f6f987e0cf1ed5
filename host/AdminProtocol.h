// The administration endpoint's wire format, shared by the server, the shell (local and remote)
// and the fuzzer, so that every side splits words and frames answers the same way.
//
// Requests: one per line (ended by a line feed), the command name and its arguments as words.
// Blanks (space, tab, carriage return) separate words; double quotes group one, and inside them a
// backslash takes the next character as it is. A word can therefore hold any byte but the line
// feed. A request line holds at most kMaxRequestLine bytes and must be UTF-8 without NUL.
//
// Responses: one per request, in request order, each a header line "STATUS LENGTH", then exactly
// LENGTH bytes of text, then one line feed. STATUS is "ok" (the command's text), "error" (why the
// request failed; the connection goes on) or "closed" (why the server is closing the connection;
// nothing follows it). The length makes any text come back exactly.
//
// Everything here is a plain function or a value type: no shared state; use an object from one
// thread at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace connector {
namespace host {
namespace admin {

// The longest request line, line feed excluded.
constexpr std::size_t kMaxRequestLine = 64 * 1024;

struct Word {
  std::string text;
  bool quoted;  // whether any part of it was quoted: a quoted "42" is a text, not a number
};

// The words of `line`. Throws std::invalid_argument, naming the column, for a quote left open.
std::vector<Word> splitWords(std::string_view line);

// The request line that splitWords() reads back as exactly `words`. Throws std::invalid_argument
// for an empty list or a word holding a line feed, which no request line can carry.
std::string formatRequest(const std::vector<std::string>& words);

// Empty when `text` is UTF-8 without NUL; otherwise what is wrong and at which byte.
std::string invalidTextReason(std::string_view text);

enum class Status { ok, error, closed };

struct Response {
  Status status;
  std::string text;
  bool operator==(const Response& other) const { return status == other.status && text == other.text; }
};

// The framed form of `response`, ready to be written.
std::string frameResponse(const Response& response);

// Cuts a byte stream into request lines as they arrive.
class RequestReader {
 public:
  void append(std::string_view bytes) { buffer_.append(bytes.data(), bytes.size()); }

  // The next complete line without its line feed, or nothing until one has arrived. Throws
  // std::length_error once the line at the front exceeds kMaxRequestLine (the stream cannot be
  // resynchronised after that; the reader stays in that state).
  std::optional<std::string> next();

 private:
  std::string buffer_;
  std::size_t scanned_ = 0;  // bytes of buffer_ already known to hold no line feed
};

// Reassembles framed responses from a byte stream as they arrive.
class ResponseReader {
 public:
  void append(std::string_view bytes) { buffer_.append(bytes.data(), bytes.size()); }

  // The next complete response, or nothing until one has arrived. Throws std::runtime_error, with
  // the offending header, when the stream is not framed as above.
  std::optional<Response> next();

  // Whether bytes of an incomplete response are waiting.
  bool partial() const { return !buffer_.empty(); }

 private:
  std::string buffer_;
};

}  // namespace admin
}  // namespace host
}  // namespace connector
