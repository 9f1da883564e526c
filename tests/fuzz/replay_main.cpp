// Runs saved fuzz inputs through a fuzz target without the fuzzing engine, so the seed corpus
// and every input that once found a fault stay regression tests of the ordinary build.
// Arguments: directories, each regular file in them one input.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  // Every input is read before the target starts: some targets change the working directory.
  std::vector<std::pair<std::string, std::vector<uint8_t>>> inputs;
  for (int i = 1; i < argc; ++i)
    for (const auto &e : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream in(e.path(), std::ios::binary);
      inputs.emplace_back(e.path(), std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {}));
      if (!in) return std::fprintf(stderr, "cannot read %s\n", e.path().c_str()), 1;
    }
  if (inputs.empty()) return std::fprintf(stderr, "no inputs found\n"), 1;
  // The code under test talks on standard output (traces, progress bars); only faults matter.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  for (const auto &[name, bytes] : inputs) {
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", name.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs replayed\n", inputs.size());
  return 0;
}
