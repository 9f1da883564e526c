// MD5 digests of an open file and of a memory buffer.
#pragma once

#include <cstddef>
#include <cstdint>

// 1 when the whole file was digested, 0 after a read error. The file position is restored.
int md5_fd(int fd, uint8_t digest[16]);
int md5_buff(const void *buff, size_t len, uint8_t digest[16]);
