// The directory-listing fetch of the ls command.
#pragma once

#include <netinet/in.h>

// Fetches and prints a remote directory listing: 0 when received, verified and printed, else 1.
int lsDir(int fd, const struct sockaddr_in *target, int targetLen, const char *path, const char *options,
          int timeout_limit_secs, const char *host);
