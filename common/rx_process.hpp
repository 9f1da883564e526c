// The receiving side's handling of one datagram: data blocks and metadata.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "common/blk_rx_vector.hpp"

// 1 when the datagram is a data block this transfer takes (stored, or a short write).
uint8_t processData(const uint8_t *pkt, int nread, int outputFd, uint32_t filesize, BlkRxVector *rxSet,
                    int ignoreFileSize);
// 1 when the datagram is this transfer's metadata from `client`'s address and port.
uint8_t processMetadata(const uint8_t *buff, int nread, const struct sockaddr_in *client,
                        const struct sockaddr_in *remote, uint32_t *filesize, uint32_t reqId, KestilTimespec *modTime,
                        uint8_t *md5);
