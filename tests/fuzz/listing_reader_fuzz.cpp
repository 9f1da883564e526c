// The listing reader on any file. The first byte picks how the rest becomes the file: as it
// is, or compressed here at a chosen level so that the record parsing behind the inflate step
// gets any bytes at all. In the second case the records delivered are checked against a plain
// reading of the uncompressed bytes: in order, every whole record up to the first damaged one.
// A record longer than half the decoded buffer may end the reading early (the reader holds at
// most one buffer of decoded bytes), so from the first such record on, delivery may stop.
#include <zlib.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "common/wire.hpp"
#include "listing/listing.hpp"
#include "tests/fuzz/fuzz_input.hpp"

namespace {

constexpr size_t RECORD_MAX = 4128;
constexpr size_t ALWAYS_DELIVERED = RECORD_MAX / 2;

using Record = std::tuple<uint8_t, uint8_t, uint8_t, uint32_t, std::string>;  // flags, group, priority, size, name

void collect(void *param, uint8_t flags, uint8_t group, uint8_t priority, uint32_t size, const char *filename) {
  static_cast<std::vector<Record> *>(param)->push_back(Record{flags, group, priority, size, filename});
}

// The records of an uncompressed listing: length (2), size (4), group, priority, flags, then the
// name with its zero byte as the record's last byte. `*sure` counts those before the first
// record longer than ALWAYS_DELIVERED.
std::vector<Record> plainRecords(const uint8_t *p, size_t len, size_t *sure) {
  std::vector<Record> out;
  *sure = SIZE_MAX;
  while (len >= 2) {
    size_t recLen = loadBe16(p);
    if (recLen > len || recLen < 10 || recLen > RECORD_MAX || p[recLen - 1] != 0) break;
    if (recLen > ALWAYS_DELIVERED && *sure == SIZE_MAX) *sure = out.size();
    out.push_back(Record{p[8], p[6], p[7], loadBe32(p + 2), reinterpret_cast<const char *>(p + 9)});
    p += recLen;
    len -= recLen;
  }
  if (*sure == SIZE_MAX) *sure = out.size();
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const std::string listingPath = fz::scratchDir("listing") + "/listing";
  fz::Input in{data, size};
  uint8_t mode = in.byte();
  uLongf packedLen = compressBound(in.len);
  std::vector<uint8_t> packed(packedLen);
  if (mode < 0x80)
    fz::writeFile(listingPath, in.p, in.len);
  else if (compress2(packed.data(), &packedLen, in.p, in.len, mode % 10) == Z_OK)
    fz::writeFile(listingPath, packed.data(), packedLen);
  else
    fz::fail("compress2 failed");
  std::vector<Record> got;
  if (iterate_dirlisting(listingPath.c_str(), collect, &got) != 0) fz::fail("the listing reader failed");
  if (mode < 0x80) return 0;
  size_t sure = 0;
  std::vector<Record> want = plainRecords(in.p, in.len, &sure);
  bool prefix = got.size() <= want.size() && std::equal(got.begin(), got.end(), want.begin());
  if (!prefix || got.size() < sure)
    fz::fail("listing reader delivered %zu records, the plain reading has %zu (%zu certain)%s", got.size(), want.size(),
             sure, prefix ? "" : ", not in the same order");
  return 0;
}
