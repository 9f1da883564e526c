// The download queue's data file loader on any file, then a few queue changes, then a second
// load of the same data file. The queue must keep its own rules after each step (counts and
// sizes that match the lists, priority order, the group cap, one entry per name and group),
// and the second load must give back exactly the queue the first one left: the data file
// always mirrors the queue, also after a load that dropped or moved entries.
#include <set>
#include <tuple>
#include <vector>

#include "queue/downlink_queue.hpp"
#include "tests/fuzz/fuzz_input.hpp"

namespace {

// Files of the working directory and their sizes; "gone" names none.
const char *const NAMES[] = {"a", "b", "c", "d", "gone"};
const size_t SIZES[] = {0, 1, 141, 1000};

using Entry = std::tuple<int, std::string, uint8_t, uint8_t, uint32_t>;  // group, name, priority, flags, size

std::vector<Entry> snapshot() {
  std::vector<Entry> all;
  for (int g = 0; g < DWNQ_GROUPS; ++g) {
    const Group &grp = groups[g];
    uint32_t count = 0, total = 0;
    const File *last = nullptr;
    std::set<std::string> names;
    for (const File *f = grp.head; f != nullptr; f = f->groupNext) {
      if (++count > DWNQ_GROUP_CAP) fz::fail("queue rule broken: group over its cap");
      if (last != nullptr && last->priority > f->priority) fz::fail("queue rule broken: priority order");
      if (!names.insert(f->name).second) fz::fail("queue rule broken: one name twice in a group");
      if (f->group != g) fz::fail("queue rule broken: entry in another group's list");
      total += f->size;
      last = f;
      all.emplace_back(g, f->name, f->priority, f->flags, f->size);
    }
    if (count != grp.fileCnt) fz::fail("queue rule broken: entry count");
    if (total != grp.totalSize) fz::fail("queue rule broken: total size");
    if (grp.tail != last) fz::fail("queue rule broken: tail");
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  [[maybe_unused]] static const bool ready = [] {
    if (chdir(fz::scratchDir("queue").c_str()) != 0) std::abort();
    for (size_t i = 0; i < 4; ++i) fz::writeFile(NAMES[i], std::string(SIZES[i], 'x').data(), SIZES[i]);
    return true;
  }();
  fz::Input in{data, size};
  // Queue changes after the first load: op, group, priority; the name comes from the op byte.
  uint8_t ops[8][3] = {};
  int opCount = in.byte() % 9;
  for (int i = 0; i < opCount; ++i)
    for (uint8_t &b : ops[i]) b = in.byte();

  fz::writeFile("queue.dat", in.p, in.len);
  dwnq_close();
  dwnq_init("queue.dat");
  snapshot();
  for (int i = 0; i < opCount; ++i) {
    const char *name = NAMES[(ops[i][0] >> 1) % 5];
    if (ops[i][0] & 1)
      dwnq_remove(name, ops[i][1]);
    else
      dwnq_insert(name, ops[i][1], ops[i][2], ops[i][0] >> 4);
  }
  std::vector<Entry> before = snapshot();
  dwnq_close();
  dwnq_init("queue.dat");
  if (snapshot() != before) fz::fail("queue rule broken: the data file does not give back the queue");
  dwnq_close();
  return 0;
}
