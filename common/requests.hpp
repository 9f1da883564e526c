// Vector acknowledgements and the requests that open a transfer, built from a BlkRxVector and
// sent on the transfer socket.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "common/blk_rx_vector.hpp"
#include "common/wire.hpp"

// Sends `len` bytes to `target` as one datagram. With `what`, "Sent %d byte <what>!" reports the
// count sent (-1 on failure); a failed or short send is reported as "Send" with the system
// error. Returns what sendto returned.
ssize_t sendReported(int fd, const struct sockaddr_in *target, const uint8_t *buf, size_t len, const char *what);
// Writes a vector acknowledgement (code 14 when abort, else 9) of at most byteLimit bytes.
int fill_vecack_packet(uint8_t *dst, int byteLimit, const BlkRxVector *vec, int abort);
void sendVectorAck(int fd, const struct sockaddr_in *target, const BlkRxVector *vec, int abort);
// get (10), put (1) or directory-listing (2) request with the piggy-backed acknowledgement.
void sendRequest(int fd, const struct sockaddr_in *target, const char *remote_filename, const BlkRxVector *rxSet,
                 uint8_t flags, uint8_t cmd);
// Queue-report request; `limits` hold plain numbers and are written big-endian.
void sendQReq(int fd, const struct sockaddr_in *target, const BlkRxVector *rxSet, uint8_t num_grps,
              const GroupLimit *limits, uint8_t flags);
