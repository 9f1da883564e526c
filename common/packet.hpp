// The protocol core's services to the sessions: the bounded wait, digests, request and
// acknowledgement encoding, and the processing of incoming data blocks and metadata.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "common/blk_rx_vector.hpp"
#include "common/wire.hpp"

// 1: fd readable; 0: the deadline passed; -1: select failed (an interrupt included).
int select_call(int fd, int sec, int usec);

// 1 when the whole file was digested, 0 after a read error. The file position is restored.
int md5_fd(int fd, uint8_t digest[16]);
int md5_buff(const void *buff, size_t len, uint8_t digest[16]);

// Writes a vector acknowledgement (code 14 when abort, else 9) of at most byteLimit bytes.
int fill_vecack_packet(uint8_t *dst, int byteLimit, const BlkRxVector *vec, int abort);
void sendVectorAck(int fd, const struct sockaddr_in *target, const BlkRxVector *vec, int abort);
// get (10), put (1) or directory-listing (2) request with the piggy-backed acknowledgement.
void sendRequest(int fd, const struct sockaddr_in *target, const char *remote_filename, const BlkRxVector *rxSet,
                 uint8_t flags, uint8_t cmd);
// Queue-report request; `limits` hold plain numbers and are written big-endian.
void sendQReq(int fd, const struct sockaddr_in *target, const BlkRxVector *rxSet, uint8_t num_grps,
              const GroupLimit *limits, uint8_t flags);

// 1 when the datagram is a data block this transfer takes (stored, or a short write).
uint8_t processData(const uint8_t *pkt, int nread, int outputFd, uint32_t filesize, BlkRxVector *rxSet,
                    int ignoreFileSize);
// 1 when the datagram is this transfer's metadata from `client`'s address and port.
uint8_t processMetadata(const uint8_t *buff, int nread, const struct sockaddr_in *client,
                        const struct sockaddr_in *remote, uint32_t *filesize, uint32_t reqId, KestilTimespec *modTime,
                        uint8_t *md5);
