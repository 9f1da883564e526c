// The queue-report fetch of the report command.
#pragma once

#include <netinet/in.h>

#include <cstdint>

// Fetches and prints the remote download queue; returns when it was received and verified or
// when no request was made, otherwise ends the process (1, 11, 12).
void qRep(int fd, const struct sockaddr_in *target, char **q_args, int argc, uint8_t flags, int timeout_limit_secs);
