// The listing writer: records of name, size, group, priority and flags, compressed into one
// zlib stream as they are added, so a listing of any length needs only fixed buffers.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "listing/listing_record.hpp"
#include "queue/downlink_queue.hpp"
#include "station/station.hpp"

namespace {

constexpr int DEFLATE_LEVEL = 9;

// Writes what deflate put into `out`; a short write is logged and the bytes are lost.
void writeDeflated(FileListing *listing, const uint8_t *out) {
  const size_t have = LISTING_RECORD_MAX - listing->zstr.avail_out;
  if (have == 0) return;
  errno = 0;
  const ssize_t n = write(listing->fd, out, have);
  if (n != static_cast<ssize_t>(have)) DBG_LOG_ERRNO(4, "bad write to listing file");
  errno = 0;
}

}  // namespace

FileListing *listing_init(int type) {
  auto *listing = static_cast<FileListing *>(calloc(1, sizeof(FileListing)));
  if (listing == nullptr) return nullptr;
  errno = 0;
  listing->name = strdup(type == 0 ? "/tmp/dirlisting.XXXXXX" : "/tmp/qreport.XXXXXX");
  if (listing->name == nullptr) {
    DBG_LOG_ERRNO(4, "malloc failed");
    free(listing);
    return nullptr;
  }
  errno = 0;
  listing->fd = mkstemp(listing->name);
  DBG_LOG_ERRNO(4, "failed to get temporary file name");
  if (listing->fd < 0) {
    free(listing->name);
    free(listing);
    return nullptr;
  }
  listing->zstr.zalloc = Z_NULL;
  listing->zstr.zfree = Z_NULL;
  listing->zstr.opaque = Z_NULL;
  if (deflateInit(&listing->zstr, DEFLATE_LEVEL) != Z_OK) {
    perror("zlib init");
    close(listing->fd);
    free(listing->name);
    free(listing);
    return nullptr;
  }
  return listing;
}

void listing_add_file(FileListing *listing, File *file) {
  if (listing == nullptr || file == nullptr || listing->fd < 0) return;
  uint8_t record[LISTING_RECORD_MAX];
  storeBe32(record + LISTING_REC_SIZE, file->size);
  record[LISTING_REC_GROUP] = file->group;
  record[LISTING_REC_PRIORITY] = file->priority;
  record[LISTING_REC_FLAGS] = file->flags;
  // A name longer than a record can hold is cut to the 4118 bytes that fit, so the record
  // stays readable and the length field matches what was written.
  const size_t nameLen = strnlen(file->name, LISTING_NAME_MAX);
  memcpy(record + LISTING_REC_NAME, file->name, nameLen);
  record[LISTING_REC_NAME + nameLen] = 0;
  const auto recordLen = static_cast<uint16_t>(LISTING_REC_FIXED + nameLen);
  storeBe16(record + LISTING_REC_LEN, recordLen);

  uint8_t out[LISTING_RECORD_MAX];
  z_stream &z = listing->zstr;
  z.next_in = record;
  z.avail_in = recordLen;
  while (z.avail_in > 0) {
    z.next_out = out;
    z.avail_out = LISTING_RECORD_MAX;
    if (deflate(&z, Z_NO_FLUSH) != Z_OK) {
      printf("ZLib error: %s\n", z.msg != nullptr ? z.msg : "");
      return;
    }
    writeDeflated(listing, out);
  }
}

void listing_done_adding(FileListing *listing) {
  if (listing == nullptr || listing->fd < 0) return;
  uint8_t out[LISTING_RECORD_MAX];
  z_stream &z = listing->zstr;
  z.next_in = Z_NULL;
  z.avail_in = 0;
  for (;;) {
    z.next_out = out;
    z.avail_out = LISTING_RECORD_MAX;
    const int ret = deflate(&z, Z_FINISH);
    if (ret != Z_OK && ret != Z_STREAM_END) {
      printf("ZLib error: %s\n", z.msg != nullptr ? z.msg : "");
      break;
    }
    writeDeflated(listing, out);
    if (ret == Z_STREAM_END) break;
  }
  deflateEnd(&z);
  close(listing->fd);
  listing->fd = -1;
}

const char *listing_file_name(FileListing *listing) { return listing != nullptr ? listing->name : nullptr; }

void listing_destroy(FileListing *listing) {
  if (listing == nullptr) return;
  listing_done_adding(listing);
  free(listing->name);
  free(listing);
}
