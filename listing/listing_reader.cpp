// The listing reader and its table printer. The reader inflates the listing into a buffer of
// one record's size and takes one record per inflate call, so any listing is read in
// constant memory; a damaged file ends the reading after the records before the fault.
#include "listing/listing.hpp"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/wire.hpp"
#include "station/station.hpp"

namespace {

void logInflateFailure(int ret) {
  DBG_print(4, "NOT OK: ");
  switch (ret) {
    case Z_ERRNO: DBG_print(4, "Z_ERRNO\n"); break;
    case Z_STREAM_ERROR: DBG_print(4, "invalid compression level\n"); break;
    case Z_DATA_ERROR: DBG_print(4, "Invalid or incomplete deflate data\n"); break;
    case Z_MEM_ERROR: DBG_print(4, "out of mem\n"); break;
    case Z_VERSION_ERROR: DBG_print(4, "zlib version mismatch\n"); break;
    default: DBG_print(4, "unknown - %d\n", ret); break;
  }
}

// Delivers the record at the front of `out` (holding `inHand` decoded bytes) and moves the
// rest to the front. False when the record is damaged: the reading ends there.
bool takeRecord(z_stream &z, uint8_t *out, unsigned inHand, iterate_dirlisting_cb callback, void *param) {
  const unsigned len = loadBe16(out + LISTING_REC_LEN);
  if (len > inHand) {
    DBG_print(4, "Record too long: %u vs %d\n", len, static_cast<int>(inHand));
    return false;
  }
  // A length below 10 cannot hold the record's own fields, and 0 would never advance.
  if (len < LISTING_REC_FIXED) {
    DBG_print(4, "Record too short: %u\n", len);
    return false;
  }
  const uint32_t size = loadBe32(out + LISTING_REC_SIZE);
  if (out[len - 1] != 0) {
    DBG_print(4, "String not null terminated, error!\n");
    return false;
  }
  callback(param, out[LISTING_REC_FLAGS], out[LISTING_REC_GROUP], out[LISTING_REC_PRIORITY], size,
           reinterpret_cast<const char *>(out + LISTING_REC_NAME));
  const unsigned rest = inHand - len;
  memmove(out, out + len, rest);
  z.next_out = out + rest;
  z.avail_out = LISTING_RECORD_MAX - rest;
  return true;
}

void print_dirlisting_cb(void *param, uint8_t flags, uint8_t group, uint8_t priority, uint32_t size,
                         const char *filename) {
  int *first = static_cast<int *>(param);
  if (*first != 0) {
    printf("%-8s %-8s %-8s %-8s filename\n", "flags", "group", "priority", "size");
    *first = 0;
  }
  printf("%-8x %-8u %-8u %-8u %s\n", flags, group, priority, size, filename);
}

}  // namespace

int iterate_dirlisting(const char *listingFile, iterate_dirlisting_cb callback, void *param) {
  errno = 0;
  int fd = open(listingFile, O_RDONLY);
  if (fd < 0) {
    DBG_LOG_ERRNO(4, "Failed to open input file %s\n", listingFile);
    return -1;
  }
  uint8_t in[LISTING_RECORD_MAX];
  uint8_t out[LISTING_RECORD_MAX];
  z_stream z{};
  z.zalloc = Z_NULL;
  z.zfree = Z_NULL;
  z.opaque = Z_NULL;
  z.next_in = in;
  z.avail_in = 0;
  if (inflateInit(&z) != Z_OK) {
    DBG_print(4, "inflateInit: %s\n", z.msg != nullptr ? z.msg : "");
    close(fd);
    return -2;
  }
  z.next_out = out;
  z.avail_out = LISTING_RECORD_MAX;

  for (;;) {
    if (z.avail_in == 0 && fd >= 0) {
      errno = 0;
      const ssize_t n = read(fd, in, sizeof in);
      if (n == 0) {
        close(fd);
        fd = -1;
      } else if (n < 0) {
        DBG_LOG_ERRNO(4, "%s", "Failed to read input file");
        break;
      } else {
        z.next_in = in;
        z.avail_in = static_cast<uInt>(n);
      }
    }
    const int ret = inflate(&z, fd >= 0 ? Z_NO_FLUSH : Z_FINISH);
    const unsigned inHand = LISTING_RECORD_MAX - z.avail_out;
    if (ret != Z_OK && ret != Z_STREAM_END) {
      logInflateFailure(ret);
      break;
    }
    if (inHand >= 2 && !takeRecord(z, out, inHand, callback, param)) break;
    if (ret == Z_STREAM_END && inHand == 1) {
      // One decoded byte after the end of the stream can never become a record.
      DBG_print(4, "Stray byte after the last record\n");
      break;
    }
    if (ret == Z_STREAM_END && inHand == 0) break;
  }

  inflateEnd(&z);
  if (fd >= 0) close(fd);
  return 0;
}

int print_dirlisting(const char *listingFile) {
  int first = 1;
  return iterate_dirlisting(listingFile, print_dirlisting_cb, &first);
}
