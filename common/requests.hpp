// Vector acknowledgements and the requests that open a transfer, built from a BlkRxVector and
// sent on the transfer socket.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "common/blk_rx_vector.hpp"
#include "common/wire.hpp"

// Writes a vector acknowledgement (code 14 when abort, else 9) of at most byteLimit bytes.
int fill_vecack_packet(uint8_t *dst, int byteLimit, const BlkRxVector *vec, int abort);
void sendVectorAck(int fd, const struct sockaddr_in *target, const BlkRxVector *vec, int abort);
// get (10), put (1) or directory-listing (2) request with the piggy-backed acknowledgement.
void sendRequest(int fd, const struct sockaddr_in *target, const char *remote_filename, const BlkRxVector *rxSet,
                 uint8_t flags, uint8_t cmd);
// Queue-report request; `limits` hold plain numbers and are written big-endian.
void sendQReq(int fd, const struct sockaddr_in *target, const BlkRxVector *rxSet, uint8_t num_grps,
              const GroupLimit *limits, uint8_t flags);
