// A listing read back as "flags/group/priority/size/name" strings, flags in hex as the
// printer shows them.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "listing/listing.hpp"
#include "tests/support/test_support.hpp"

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

}  // namespace kt
