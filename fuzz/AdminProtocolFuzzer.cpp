// The administration endpoint's wire format, both ways. Checked for every input: words (any bytes
// but the line feed) formatted into a request line split back unchanged; a split line formatted
// and split again gives the same words; any texts framed as answers and fed to a reader in pieces
// of any size come back unchanged and in order; and arbitrary bytes, read as a request line, a
// stream of request lines or a stream of answers, are either taken or refused with the documented
// exception, never anything else.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "host/AdminProtocol.h"

namespace {

namespace admin = connector::host::admin;

std::vector<std::string> texts(const std::vector<admin::Word>& words) {
  std::vector<std::string> out;
  for (const admin::Word& word : words) {
    out.push_back(word.text);
  }
  return out;
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& word : words) {
    out += "[" + word + "]";
  }
  return out;
}

void wordsRoundTrip(fuzz::Input& input) {
  std::vector<std::string> words(input.ConsumeIntegralInRange<std::size_t>(1, 8));
  for (std::string& word : words) {
    word = input.ConsumeRandomLengthString(32);
    word.erase(std::remove(word.begin(), word.end(), '\n'), word.end());
  }
  const std::string line = admin::formatRequest(words);
  MODEL_CHECK(line.find('\n') == std::string::npos, "a request line holds a line feed: " + line);
  fuzz::expect("split(format(" + joined(words) + "))", joined(words), joined(texts(admin::splitWords(line))));
}

void framingRoundTrip(fuzz::Input& input) {
  std::vector<admin::Response> sent(input.ConsumeIntegralInRange<std::size_t>(1, 6));
  std::string stream;
  for (admin::Response& response : sent) {
    response.status = static_cast<admin::Status>(input.pick(3));
    response.text = input.ConsumeRandomLengthString(64);
    stream += admin::frameResponse(response);
  }
  admin::ResponseReader reader;
  std::vector<admin::Response> received;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t piece = input.ConsumeIntegralInRange<std::size_t>(1, stream.size() - at);
    reader.append(std::string_view(stream).substr(at, piece));
    at += piece;
    while (std::optional<admin::Response> response = reader.next()) {
      received.push_back(*response);
    }
  }
  MODEL_CHECK(
      received == sent && !reader.partial(),
      "framed " + std::to_string(sent.size()) + " answers, read back " + std::to_string(received.size()));
}

void arbitraryBytes(fuzz::Input& input) {
  const std::string bytes = input.ConsumeRemainingBytesAsString();
  const std::string split = fuzz::outcomeOf([&] { return joined(texts(admin::splitWords(bytes))); });
  if (split.rfind("throw:", 0) != 0) {
    // Idempotence: what a line means survives formatting it again (if it can be carried at all).
    const std::vector<std::string> words = texts(admin::splitWords(bytes));
    bool carriable = !words.empty();
    for (const std::string& word : words) {
      carriable = carriable && word.find('\n') == std::string::npos;
    }
    if (carriable) {
      fuzz::expect("split(format(split(bytes)))", split,
                   joined(texts(admin::splitWords(admin::formatRequest(words)))));
    }
  } else {
    MODEL_CHECK(split.find("is not closed") != std::string::npos, "split refused with " + split);
  }
  admin::RequestReader requests;
  requests.append(bytes);
  try {
    while (std::optional<std::string> line = requests.next()) {
      MODEL_CHECK(line->size() <= admin::kMaxRequestLine && line->find('\n') == std::string::npos,
                  "a request line of " + std::to_string(line->size()) + " bytes");
      admin::invalidTextReason(*line);
    }
  } catch (const std::length_error&) {
  }
  admin::ResponseReader responses;
  responses.append(bytes);
  try {
    while (responses.next()) {
    }
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

void runOne(fuzz::Input& input) {
  switch (input.pick(3)) {
    case 0:
      wordsRoundTrip(input);
      break;
    case 1:
      framingRoundTrip(input);
      break;
    default:
      arbitraryBytes(input);
      break;
  }
}
