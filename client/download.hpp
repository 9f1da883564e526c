// The download side of the client: the receive sessions (file, directory listing, queue
// report), the draining of late datagrams, and the progress displays.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "common/blk_rx_vector.hpp"

struct SavedRXState;

// Fetches one remote file; returns only when it was received and verified, otherwise ends the
// process with status 1, 11, 12, 13 or 14.
void fileGet(int fd, const struct sockaddr_in *target, int targetLen, const char *local_filename,
             const char *remote_filename, int zeroPad, uint32_t lenLimit, int timeout_limit_sec, uint8_t flags,
             const char *host);
// Reads and discards datagrams until the socket has been silent for 250 ms.
void drain_satellite_spam(int fd);

// Fetches and prints a remote directory listing: 0 when received, verified and printed, else 1.
int lsDir(int fd, const struct sockaddr_in *target, int targetLen, const char *path, const char *options,
          int timeout_limit_secs, const char *host);
// Fetches and prints the remote download queue; returns when it was received and verified or
// when no request was made, otherwise ends the process (1, 11, 12).
void qRep(int fd, const struct sockaddr_in *target, char **q_args, int argc, uint8_t flags, int timeout_limit_secs);

// Redraws the progress bar in place.
void update_progress(const BlkRxVector *rxSet);
// Prints a mapped state record: where the download comes from, how far it got and its block
// map. 0 when all of it was printed, else the command's exit status (1: a damaged record, or
// a complete download).
int printStateRecord(const SavedRXState *state);
// Prints where a partial download comes from and its block map; ends the process with status 1
// on every failure and for a complete download.
void printDownloadProgress(const char *local_filename);
