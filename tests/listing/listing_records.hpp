// Test helpers: a listing read back as "flags/group/priority/size/name" strings (flags in hex,
// as the printer shows them), raw record bytes, and zlib streams made without the writer.
#pragma once

#include <zlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "listing/listing.hpp"

namespace kt {

inline std::vector<std::string> listingRecords(const std::string &path, int *result = nullptr) {
  std::vector<std::string> recs;
  const int rc = iterate_dirlisting(
      path.c_str(),
      [](void *p, uint8_t flags, uint8_t group, uint8_t priority, uint32_t size, const char *name) {
        char head[64];
        std::snprintf(head, sizeof head, "%x/%u/%u/%u/", flags, group, priority, size);
        static_cast<std::vector<std::string> *>(p)->push_back(head + std::string(name));
      },
      &recs);
  if (result != nullptr) *result = rc;
  return recs;
}

inline std::string rawRecord(const std::string &name, uint32_t size, uint8_t group, uint8_t priority, uint8_t flags) {
  const size_t len = 10 + name.size();
  const unsigned char head[9] = {uint8_t(len >> 8), uint8_t(len), uint8_t(size >> 24), uint8_t(size >> 16),
                                 uint8_t(size >> 8), uint8_t(size), group, priority, flags};
  return std::string(reinterpret_cast<const char *>(head), 9) + name + '\0';
}

inline std::string zlibOf(const std::string &plain) {
  uLongf cap = compressBound(plain.size());
  std::string out(cap, '\0');
  compress2(reinterpret_cast<Bytef *>(out.data()), &cap, reinterpret_cast<const Bytef *>(plain.data()), plain.size(), 9);
  out.resize(cap);
  return out;
}

}  // namespace kt
