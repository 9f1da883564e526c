// The remove request of the rm command.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

// Packs paths[pathBegin .. pathEnd - 1] into one remove request and sends it once to `target`.
// `targetLen` and `host` are not used.
void rmFiles(int fd, struct sockaddr_in *target, socklen_t *targetLen, char **paths, int pathBegin, int pathEnd,
             int long_file_name, const char *host, int force, int recursive);
