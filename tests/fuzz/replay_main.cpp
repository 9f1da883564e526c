// Runs saved fuzz inputs through a fuzz target without the fuzzing engine, so the seed corpus
// and every input that once found a fault stay regression tests of the ordinary build.
// Arguments: files or directories (each regular file in a directory is one input).
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) __attribute__((weak));

namespace {

bool readWhole(const std::string &path, std::vector<uint8_t> *out) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  uint8_t buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
  std::fclose(f);
  return true;
}

void collect(const std::string &path, std::vector<std::string> *files) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    files->push_back(path);
    return;
  }
  DIR *d = opendir(path.c_str());
  if (d == nullptr) return;
  while (dirent *e = readdir(d)) {
    if (e->d_name[0] != '.') collect(path + "/" + e->d_name, files);
  }
  closedir(d);
}

}  // namespace

int main(int argc, char **argv) {
  // Every input is read before the target starts: some targets change the working directory.
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) collect(argv[i], &files);
  if (files.empty()) {
    std::fprintf(stderr, "no inputs found\n");
    return 1;
  }
  std::vector<std::vector<uint8_t>> inputs(files.size());
  for (size_t i = 0; i < files.size(); ++i) {
    if (!readWhole(files[i], &inputs[i])) {
      std::fprintf(stderr, "cannot read %s\n", files[i].c_str());
      return 1;
    }
  }
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  // The code under test talks on standard output (traces, progress bars); only faults matter.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  for (size_t i = 0; i < files.size(); ++i) {
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", files[i].c_str(), inputs[i].size());
    LLVMFuzzerTestOneInput(inputs[i].data(), inputs[i].size());
  }
  std::fprintf(stderr, "%zu inputs replayed\n", files.size());
  return 0;
}
