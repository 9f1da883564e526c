// Runs saved fuzz inputs through a fuzz target without the fuzzing engine, so the seed corpus
// and every input that once found a fault stay regression tests of the ordinary build.
// Arguments: files or directories (each regular file in a directory is one input).
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) __attribute__((weak));

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  // Every input is read before the target starts: some targets change the working directory.
  std::vector<std::pair<std::string, std::vector<uint8_t>>> inputs;
  auto read = [&](const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    inputs.emplace_back(path.string(), std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {}));
    return static_cast<bool>(in);
  };
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    for (const fs::directory_entry &e : fs::recursive_directory_iterator(argv[i], ec))
      if (e.is_regular_file() && e.path().filename().string()[0] != '.' && !read(e.path())) return 1;
    if (ec && !read(argv[i])) return std::fprintf(stderr, "cannot read %s\n", argv[i]), 1;
  }
  if (inputs.empty()) return std::fprintf(stderr, "no inputs found\n"), 1;
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  // The code under test talks on standard output (traces, progress bars); only faults matter.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  for (const auto &[name, bytes] : inputs) {
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", name.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs replayed\n", inputs.size());
  return 0;
}
