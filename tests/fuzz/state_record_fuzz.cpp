// The progress command's reading of a state record: any 2248 bytes as it would map them
// from a partial download's state file (shorter inputs are zero-filled).
#include "client/progress.hpp"
#include "client/state_file.hpp"
#include "tests/fuzz/fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Heap-allocated at its exact size so that any read past the record shows.
  auto *rec = new SavedRXState;
  fz::Input{data, size}.take(rec, sizeof *rec);
  (void)printStateRecord(rec);
  delete rec;
  return 0;
}
