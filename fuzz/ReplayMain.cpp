// Replays a fuzzer's corpus through its LLVMFuzzerTestOneInput without libFuzzer: every file in the
// directory named on the command line, in name order. A model mismatch aborts the process, as it
// does under libFuzzer; a missing or empty directory fails the run.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  const bool given = argc == 2 && fs::is_directory(argv[1]);
  std::vector<fs::path> inputs(given ? fs::directory_iterator(argv[1]) : fs::directory_iterator(), {});
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  return inputs.empty() ? 1 : 0;
}
