// The on-board file manager's messages: a protocol of its own beside the transfer protocol,
// with command codes unrelated to the transfer codes. Single-byte fields only.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t FILEMGR_STATUS = 0x01;
constexpr uint8_t FILEMGR_STATUS_RESP = 0xF1;
constexpr uint8_t FILEMGR_ADD = 0x10;
constexpr uint8_t FILEMGR_ADD_RESP = 0x11;
constexpr uint8_t FILEMGR_RM = 0x12;
constexpr uint8_t FILEMGR_RM_RESP = 0x13;

// Queue operation request: cmd, group, priority, flags, then the NUL-terminated name.
constexpr size_t QOP_GROUP = 1;
constexpr size_t QOP_PRIORITY = 2;
constexpr size_t QOP_FLAGS = 3;
constexpr size_t QOP_NAME = 4;
constexpr size_t QOP_MAX_LEN = 1499;
