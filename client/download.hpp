// The download session of the get and resume commands, and the draining of late datagrams
// that ends every download.
#pragma once

#include <netinet/in.h>

#include <cstdint>

// Fetches one remote file; returns only when it was received and verified, otherwise ends the
// process with status 1, 11, 12, 13 or 14.
void fileGet(int fd, const struct sockaddr_in *target, int targetLen, const char *local_filename,
             const char *remote_filename, int zeroPad, uint32_t lenLimit, int timeout_limit_sec, uint8_t flags,
             const char *host);
// Reads and discards datagrams until the socket has been silent for 250 ms.
void drain_satellite_spam(int fd);
