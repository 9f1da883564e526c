// MD5 digests of a whole open file and of a memory buffer, which verify a transfer end
// to end (the metadata carries the sender's digest).
#include "common/digest.hpp"

#include <md5.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

int md5_fd(int fd, uint8_t digest[16]) {
  std::memset(digest, 0, 16);
  off_t saved = lseek(fd, 0, SEEK_CUR);
  lseek(fd, 0, SEEK_SET);
  MD5_CTX ctx;
  MD5Init(&ctx);
  uint8_t chunk[1024];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0) {
      std::perror("MD5 read error");
      MD5Final(digest, &ctx);
      lseek(fd, saved, SEEK_SET);
      return 0;
    }
    if (n == 0) break;
    MD5Update(&ctx, chunk, static_cast<size_t>(n));
  }
  MD5Final(digest, &ctx);
  lseek(fd, saved, SEEK_SET);
  return 1;
}

int md5_buff(const void *buff, size_t len, uint8_t digest[16]) {
  std::memset(digest, 0, 16);
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, static_cast<const uint8_t *>(buff), len);
  MD5Final(digest, &ctx);
  return 1;
}
