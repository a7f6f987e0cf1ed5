// The administration endpoint's wire format, both ways. Checked for every input: words (any bytes
// but the line feed) formatted into a request line split back unchanged; any texts framed as
// answers and fed to a reader in pieces of any size come back unchanged and in order; and
// arbitrary bytes, read as a request line, a stream of request lines or a stream of answers, are
// either taken or refused with the documented exception, never anything else.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "host/AdminProtocol.h"

namespace {

namespace admin = connector::host::admin;

void wordsRoundTrip(fuzz::Input& input) {
  std::vector<std::string> words(input.ConsumeIntegralInRange<std::size_t>(1, 8));
  std::string sent, received;
  for (std::string& word : words) {
    word = input.ConsumeRandomLengthString(32);
    word.erase(std::remove(word.begin(), word.end(), '\n'), word.end());
    sent += "[" + word + "]";
  }
  for (const admin::Word& word : admin::splitWords(admin::formatRequest(words))) {
    received += "[" + word.text + "]";
  }
  fuzz::expect("split(format(words))", sent, received);
}

void framingRoundTrip(fuzz::Input& input) {
  std::vector<admin::Response> sent(input.ConsumeIntegralInRange<std::size_t>(1, 6)), received;
  std::string stream;
  for (admin::Response& response : sent) {
    response.status = static_cast<admin::Status>(input.pick(3));
    response.text = input.ConsumeRandomLengthString(64);
    stream += admin::frameResponse(response);
  }
  admin::ResponseReader reader;
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
  admin::invalidTextReason(bytes);
  const std::string split = fuzz::outcomeOf([&] { admin::splitWords(bytes); });
  MODEL_CHECK(split == "ok" || split.find("is not closed") != std::string::npos, "split: " + split);
  const std::string lines = fuzz::outcomeOf([&] {
    admin::RequestReader reader;
    reader.append(bytes);
    while (std::optional<std::string> line = reader.next()) {
      MODEL_CHECK(line->size() <= admin::kMaxRequestLine,
                  "a request line of " + std::to_string(line->size()));
    }
  });
  MODEL_CHECK(lines == "ok" || lines.find("is longer than") != std::string::npos, "request lines: " + lines);
  const std::string answers = fuzz::outcomeOf([&] {
    admin::ResponseReader reader;
    reader.append(bytes);
    while (reader.next()) {
    }
  });
  MODEL_CHECK(answers == "ok" || answers.rfind("throw:the server's answer", 0) == 0, "answers: " + answers);
}

}  // namespace

void runOne(fuzz::Input& input) {
  void (*const cases[])(fuzz::Input&) = {wordsRoundTrip, framingRoundTrip, arbitraryBytes};
  cases[input.pick(3)](input);
}
