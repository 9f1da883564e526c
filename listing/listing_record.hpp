// The layout of one listing record in the decoded listing stream, shared by the reader here and
// the writer of the download queue: a big-endian length that counts the whole record, the
// big-endian file size, the group, priority and flags bytes, then the name and its zero byte.
#pragma once

#include <cstddef>

constexpr size_t LISTING_RECORD_MAX = 4128;  // the largest record: the writer's and the reader's buffer
constexpr size_t LISTING_REC_LEN = 0;        // 16 bits
constexpr size_t LISTING_REC_SIZE = 2;       // 32 bits
constexpr size_t LISTING_REC_GROUP = 6;
constexpr size_t LISTING_REC_PRIORITY = 7;
constexpr size_t LISTING_REC_FLAGS = 8;
constexpr size_t LISTING_REC_NAME = 9;
// Every field and the name's zero byte: the shortest record.
constexpr size_t LISTING_REC_FIXED = LISTING_REC_NAME + 1;
constexpr size_t LISTING_NAME_MAX = LISTING_RECORD_MAX - LISTING_REC_FIXED;  // 4118
