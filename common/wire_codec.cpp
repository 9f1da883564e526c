// Encoders and decoders of the transfer protocol's datagrams over byte buffers.
#include "common/wire_codec.hpp"

#include <cstring>

const uint8_t *WireReader::take(size_t n) {
  if (!has(n)) {
    ok = false;
    return nullptr;
  }
  const uint8_t *at = p + pos;
  pos += n;
  return at;
}

uint8_t WireReader::u8() {
  const uint8_t *at = take(1);
  return at != nullptr ? at[0] : 0;
}

uint16_t WireReader::be16() {
  const uint8_t *at = take(2);
  return at != nullptr ? loadBe16(at) : 0;
}

uint32_t WireReader::be32() {
  const uint8_t *at = take(4);
  return at != nullptr ? loadBe32(at) : 0;
}

uint32_t WireReader::beN(int width) {
  const uint8_t *at = take(static_cast<size_t>(width));
  return at != nullptr ? loadBeN(at, width) : 0;
}

uint8_t *WireWriter::reserve(size_t n) {
  if (!ok || cap - pos < n) {
    ok = false;
    return nullptr;
  }
  uint8_t *at = p + pos;
  pos += n;
  return at;
}

void WireWriter::u8(uint8_t v) {
  if (uint8_t *at = reserve(1)) at[0] = v;
}

void WireWriter::be16(uint16_t v) {
  if (uint8_t *at = reserve(2)) storeBe16(at, v);
}

void WireWriter::be32(uint32_t v) {
  if (uint8_t *at = reserve(4)) storeBe32(at, v);
}

void WireWriter::bytes(const void *src, size_t n) {
  uint8_t *at = reserve(n);
  if (at != nullptr && n > 0) std::memcpy(at, src, n);
}

namespace {

void putVecAck(WireWriter &w, const KESTIL_vecack &ack) {
  w.u8(ack.cmd);
  w.be32(ack.base);
  w.bytes(ack.vector, ack.vectorLen);
}

// What follows a request's own fields: nothing, or one whole acknowledgement.
bool readTrailingAck(WireReader &r, bool *hasAck, KESTIL_vecack *ack) {
  *hasAck = r.left() > 0;
  if (!*hasAck) return true;
  size_t n = r.left();
  return decodeVecAck(r.take(n), n, ack);
}

}  // namespace

size_t encodeVecAck(uint8_t *dst, size_t cap, const KESTIL_vecack &ack) {
  WireWriter w{dst, cap};
  putVecAck(w, ack);
  return w.done();
}

bool decodeVecAck(const uint8_t *src, size_t len, KESTIL_vecack *out) {
  WireReader r{src, len};
  out->cmd = r.u8();
  out->base = r.be32();
  if (!r.ok || (out->cmd != KESTIL_VECACK && out->cmd != KESTIL_VECACK_FINAL)) return false;
  out->vectorLen = r.left();
  out->vector = r.take(out->vectorLen);
  return r.ok;
}

size_t encodeGetRequest(uint8_t *dst, size_t cap, const KESTIL_get &req) {
  WireWriter w{dst, cap};
  w.u8(req.cmd);
  w.u8(req.flags);
  w.be16(req.blocksize);
  w.be32(req.reqId);
  w.bytes(req.name, req.nameLen);
  w.u8(0);
  if (req.hasAck) putVecAck(w, req.ack);
  return w.done();
}

bool decodeGetRequest(const uint8_t *src, size_t len, KESTIL_get *out) {
  WireReader r{src, len};
  out->cmd = r.u8();
  out->flags = r.u8();
  out->blocksize = r.be16();
  out->reqId = r.be32();
  if (!r.ok || (out->cmd != KESTIL_GET && out->cmd != KESTIL_PUT && out->cmd != KESTIL_LS)) return false;
  const uint8_t *name = src + r.pos;
  const void *nul = std::memchr(name, 0, r.left());
  if (nul == nullptr) return false;
  out->name = reinterpret_cast<const char *>(name);
  out->nameLen = static_cast<size_t>(static_cast<const uint8_t *>(nul) - name);
  r.take(out->nameLen + 1);
  return readTrailingAck(r, &out->hasAck, &out->ack) && r.ok;
}

size_t encodeQReport(uint8_t *dst, size_t cap, const KESTIL_qreport &req) {
  if (req.num_grps > KESTIL_MAX_GROUP_LIMITS) return 0;
  WireWriter w{dst, cap};
  w.u8(KESTIL_QREPORT);
  w.u8(req.flags);
  w.be16(req.blocksize);
  w.be32(req.reqId);
  w.u8(req.num_grps);
  for (int i = 0; i < req.num_grps; ++i) {
    w.u8(req.limits[i].group);
    w.be32(req.limits[i].sizeTarget);
    w.be32(req.limits[i].numEntriesTarget);
  }
  if (req.hasAck) putVecAck(w, req.ack);
  return w.done();
}

bool decodeQReport(const uint8_t *src, size_t len, KESTIL_qreport *out) {
  WireReader r{src, len};
  const uint8_t cmd = r.u8();
  out->flags = r.u8();
  out->blocksize = r.be16();
  out->reqId = r.be32();
  out->num_grps = r.u8();
  if (!r.ok || cmd != KESTIL_QREPORT || out->num_grps > KESTIL_MAX_GROUP_LIMITS) return false;
  for (int i = 0; i < out->num_grps; ++i) {
    out->limits[i].group = r.u8();
    out->limits[i].sizeTarget = r.be32();
    out->limits[i].numEntriesTarget = r.be32();
  }
  return r.ok && readTrailingAck(r, &out->hasAck, &out->ack);
}

bool decodeRm(const uint8_t *src, size_t len, KESTIL_rm *out) {
  WireReader r{src, len};
  const uint8_t cmd = r.u8();
  out->flags = r.u8();
  if (!r.ok || cmd != KESTIL_RM || r.left() == 0 || src[len - 1] != 0) return false;
  out->namesLen = r.left();
  out->names = reinterpret_cast<const char *>(r.take(out->namesLen));
  return true;
}

const char *rmNextName(const KESTIL_rm &rm, size_t *pos) {
  if (*pos >= rm.namesLen) return nullptr;
  const char *name = rm.names + *pos;
  // decodeRm made sure the last name ends with a NUL inside the datagram.
  *pos += std::strlen(name) + 1;
  return name;
}

size_t encodeMetadata(uint8_t *dst, size_t cap, const KESTIL_metadata &meta) {
  WireWriter w{dst, cap};
  w.u8(KESTIL_METADATA);
  w.be32(meta.reqId);
  w.be32(meta.size);
  w.be32(meta.utcModTime_s);
  w.be32(meta.utcModTime_ns);
  w.bytes(meta.md5, sizeof meta.md5);
  return w.done();
}

bool decodeMetadata(const uint8_t *src, size_t len, KESTIL_metadata *out) {
  if (len != KESTIL_METADATA_LEN || src[0] != KESTIL_METADATA) return false;
  WireReader r{src + 1, len - 1};
  out->reqId = r.be32();
  out->size = r.be32();
  out->utcModTime_s = r.be32();
  out->utcModTime_ns = r.be32();
  std::memcpy(out->md5, r.take(sizeof out->md5), sizeof out->md5);
  return r.ok;
}

int dataBlockHeaderLen(uint32_t blkNum) {
  return blkNum < (1u << 8) ? 2 : blkNum < (1u << 16) ? 3 : blkNum < (1u << 24) ? 4 : 5;
}

int encodeDataBlockHeader(uint8_t *dst, size_t cap, uint32_t blkNum) {
  const int headerLen = dataBlockHeaderLen(blkNum);
  const int width = headerLen - 1;
  if (cap < static_cast<size_t>(headerLen)) return 0;
  dst[0] = static_cast<uint8_t>(KESTIL_DATA1 + width - 1);
  for (int i = 0; i < width; ++i) dst[1 + i] = static_cast<uint8_t>(blkNum >> (8 * (width - 1 - i)));
  return headerLen;
}

size_t encodeDataBlock(uint8_t *dst, size_t cap, uint32_t blkNum, const uint8_t *data, size_t dataLen) {
  const size_t headerLen = static_cast<size_t>(dataBlockHeaderLen(blkNum));
  if (cap < headerLen || cap - headerLen < dataLen) return 0;
  encodeDataBlockHeader(dst, cap, blkNum);
  if (dataLen > 0) std::memcpy(dst + headerLen, data, dataLen);
  return static_cast<size_t>(headerLen) + dataLen;
}

bool decodeDataBlock(const uint8_t *src, size_t len, KestilDataBlock *out) {
  WireReader r{src, len};
  const uint8_t cmd = r.u8();
  if (!r.ok || cmd < KESTIL_DATA1 || cmd > KESTIL_DATA4) return false;
  out->blkNum = r.beN(cmd - KESTIL_DATA1 + 1);
  out->dataLen = r.left();
  out->data = src + r.pos;
  return r.ok;
}

size_t encodeError(uint8_t *dst, size_t cap, const KESTIL_error &err) {
  WireWriter w{dst, cap};
  w.u8(KESTIL_ERROR);
  w.be32(static_cast<uint32_t>(err.error_code1));
  w.be32(static_cast<uint32_t>(err.error_code2));
  w.be32(static_cast<uint32_t>(err.error_code3));
  return w.done();
}

bool decodeError(const uint8_t *src, size_t len, KESTIL_error *out) {
  if (len != KESTIL_ERROR_LEN || src[0] != KESTIL_ERROR) return false;
  out->error_code1 = static_cast<int32_t>(loadBe32(src + 1));
  out->error_code2 = static_cast<int32_t>(loadBe32(src + 5));
  out->error_code3 = static_cast<int32_t>(loadBe32(src + 9));
  return true;
}
