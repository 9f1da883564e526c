// The download queue's data file made and read without the queue: each record a 16-bit
// native-order length, the name, NUL, then group, priority and flags.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kt {

inline std::string queueRecord(const std::string &name, uint8_t group, uint8_t priority = 0, uint8_t flags = 0) {
  const uint16_t len = static_cast<uint16_t>(name.size() + 4);
  return std::string(reinterpret_cast<const char *>(&len), 2) + name + '\0' + char(group) + char(priority) +
         char(flags);
}

// The records of `data` as "name/group/priority/flags", in file order.
inline std::vector<std::string> queueRecords(const std::string &data) {
  std::vector<std::string> recs;
  for (size_t at = 0; at + 2 <= data.size();) {
    uint16_t len;
    std::memcpy(&len, data.data() + at, 2);
    const char *rec = data.data() + at + 2, *attrs = rec + std::strlen(rec) + 1;
    recs.push_back(std::string(rec) + "/" + std::to_string(uint8_t(attrs[0])) + "/" +
                   std::to_string(uint8_t(attrs[1])) + "/" + std::to_string(uint8_t(attrs[2])));
    at += 2 + len;
  }
  return recs;
}

}  // namespace kt
