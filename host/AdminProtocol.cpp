#include "host/AdminProtocol.h"

#include <stdexcept>

namespace connector {
namespace host {
namespace admin {

namespace {

const char* const kOk = "ok";
const char* const kError = "error";
const char* const kClosed = "closed";
// A header is a status word, a blank and a decimal length; anything longer is not a header.
constexpr std::size_t kMaxHeader = 32;
// Far above any command's text, but it stops a corrupt length from reserving memory without end.
constexpr std::size_t kMaxResponse = std::size_t(1) << 30;

bool blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string hexByte(unsigned char c) {
  const char* const digits = "0123456789abcdef";
  return std::string("0x") + digits[c >> 4] + digits[c & 15];
}

const char* statusName(Status status) {
  switch (status) {
    case Status::ok:
      return kOk;
    case Status::error:
      return kError;
    case Status::closed:
      break;
  }
  return kClosed;
}

}  // namespace

std::vector<Word> splitWords(std::string_view line) {
  std::vector<Word> words;
  std::size_t i = 0;
  while (i < line.size()) {
    if (blank(line[i])) {
      ++i;
      continue;
    }
    Word word{"", false};
    while (i < line.size() && !blank(line[i])) {
      if (line[i] != '"') {
        word.text += line[i++];
        continue;
      }
      word.quoted = true;
      const std::size_t opening = i++;
      while (i < line.size() && line[i] != '"') {
        if (line[i] == '\\' && i + 1 < line.size()) {
          ++i;
        }
        word.text += line[i++];
      }
      if (i == line.size()) {
        throw std::invalid_argument("the quote at column " + std::to_string(opening + 1) +
                                    " is not closed; end the quoted text with \"");
      }
      ++i;
    }
    words.push_back(std::move(word));
  }
  return words;
}

std::string formatRequest(const std::vector<std::string>& words) {
  if (words.empty()) {
    throw std::invalid_argument("a request needs at least the command name");
  }
  std::string line;
  for (const std::string& word : words) {
    if (word.find('\n') != std::string::npos) {
      throw std::invalid_argument("the word \"" + word.substr(0, word.find('\n')) +
                                  "...\" holds a line feed, which a request line cannot carry");
    }
    if (!line.empty()) {
      line += ' ';
    }
    bool bare = !word.empty() && word[0] != '#';
    for (char c : word) {
      bare = bare && !blank(c) && c != '"';
    }
    if (bare) {
      line += word;
      continue;
    }
    line += '"';
    for (char c : word) {
      if (c == '"' || c == '\\') {
        line += '\\';
      }
      line += c;
    }
    line += '"';
  }
  return line;
}

std::string invalidTextReason(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = bytes[i];
    if (lead == 0) {
      return "byte " + std::to_string(i + 1) + " is NUL; requests are text";
    }
    std::size_t length = 1;
    unsigned char low = 0x80, high = 0xbf;  // the range of the second byte; tighter after some leads
    if (lead >= 0xc2 && lead <= 0xdf) {
      length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
      length = 3;
      low = lead == 0xe0 ? 0xa0 : 0x80;   // no overlong forms
      high = lead == 0xed ? 0x9f : 0xbf;  // no surrogates
    } else if (lead >= 0xf0 && lead <= 0xf4) {
      length = 4;
      low = lead == 0xf0 ? 0x90 : 0x80;
      high = lead == 0xf4 ? 0x8f : 0xbf;  // nothing above U+10FFFF
    } else if (lead >= 0x80) {
      return "byte " + std::to_string(i + 1) + " (" + hexByte(lead) + ") is not valid UTF-8";
    }
    for (std::size_t k = 1; k < length; ++k) {
      const bool ok = i + k < text.size() && bytes[i + k] >= (k == 1 ? low : 0x80) &&
                      bytes[i + k] <= (k == 1 ? high : 0xbf);
      if (!ok) {
        return "byte " + std::to_string(i + 1) + " (" + hexByte(lead) + ") starts an invalid UTF-8 sequence";
      }
    }
    i += length;
  }
  return "";
}

std::string frameResponse(const Response& response) {
  std::string framed = statusName(response.status);
  framed += ' ';
  framed += std::to_string(response.text.size());
  framed += '\n';
  framed += response.text;
  framed += '\n';
  return framed;
}

std::optional<std::string> RequestReader::next() {
  const std::size_t end = buffer_.find('\n', scanned_);
  if (end == std::string::npos) {
    scanned_ = buffer_.size();
    if (scanned_ > kMaxRequestLine) {
      throw std::length_error("the request line is longer than " + std::to_string(kMaxRequestLine) +
                              " bytes; send at most that much before each line feed");
    }
    return std::nullopt;
  }
  if (end > kMaxRequestLine) {
    scanned_ = end;
    throw std::length_error("the request line is longer than " + std::to_string(kMaxRequestLine) +
                            " bytes; send at most that much before each line feed");
  }
  std::string line = buffer_.substr(0, end);
  buffer_.erase(0, end + 1);
  scanned_ = 0;
  return line;
}

std::optional<Response> ResponseReader::next() {
  const std::size_t end = buffer_.find('\n');
  if (end == std::string::npos || end > kMaxHeader) {
    if (buffer_.size() > kMaxHeader) {
      throw std::runtime_error("the server's answer does not start with a header such as \"ok 12\": " +
                               buffer_.substr(0, kMaxHeader) + "...");
    }
    return std::nullopt;
  }
  const std::string header = buffer_.substr(0, end);
  const std::size_t space = header.find(' ');
  const std::string status = header.substr(0, space);
  const std::string digits = space == std::string::npos ? "" : header.substr(space + 1);
  const bool known = status == kOk || status == kError || status == kClosed;
  if (!known || digits.empty() || digits.size() > 10 ||
      digits.find_first_not_of("0123456789") != std::string::npos || std::stoull(digits) > kMaxResponse) {
    throw std::runtime_error("the server's answer has the header \"" + header +
                             "\"; expected ok, error or closed and a length of at most " +
                             std::to_string(kMaxResponse));
  }
  const std::size_t length = std::stoull(digits);
  if (buffer_.size() < end + 1 + length + 1) {
    return std::nullopt;
  }
  if (buffer_[end + 1 + length] != '\n') {
    throw std::runtime_error("the server's answer with the header \"" + header +
                             "\" does not end with a line feed after its text");
  }
  Response response{status == kOk      ? Status::ok
                    : status == kError ? Status::error
                                       : Status::closed,
                    buffer_.substr(end + 1, length)};
  buffer_.erase(0, end + 1 + length + 1);
  return response;
}

}  // namespace admin
}  // namespace host
}  // namespace connector
