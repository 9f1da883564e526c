// Datagrams as the receive loops meet them. The first option byte picks the side:
// - the download side: a state record (fresh, or taken from the input the way a resumed get
//   would find it on disk) and a run of datagrams handed to the receive loop's dispatch, with
//   the progress redraw after each, under the download, listing or report rules;
// - the upload side: a run of datagrams (acknowledgements, refusals, anything) handed to the
//   upload session of a small file, with a paced burst after each acknowledgement.
#include <arpa/inet.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "client/client.hpp"
#include "client/progress.hpp"
#include "client/put.hpp"
#include "client/receive_session.hpp"
#include "client/state_file.hpp"
#include "common/common.hpp"
#include "tests/fuzz/fuzz_input.hpp"

namespace {

constexpr uint8_t OPT_UPLOAD = 0x01;
constexpr uint8_t OPT_RECORD_FROM_INPUT = 0x02;
constexpr uint8_t OPT_ZERO_PAD = 0x04;
constexpr uint8_t OPT_FOREIGN_SENDER = 0x08;  // datagrams from another port than the target's

// Never sent to: the sockets here are -1.
sockaddr_in endpoint(uint16_t port) { return sockaddr_in{AF_INET, htons(port), {htonl(0x7F000901)}, {}}; }

// What the vector operations must keep whatever arrives: an index inside the ring and a base
// on a whole byte of it.
void checkVector(const BlkRxVector *v) {
  if (v->head < 0 || v->head > 127) fz::fail("invariant broken: ring index outside the ring");
  if (v->blkNumBase % 8 != 0) fz::fail("invariant broken: window base not on a ring byte");
}

void download(uint8_t opts, fz::Input in) {
  static const std::string stateName = fz::scratchDir("rx") + "/.local.kestil_state";
  const ReceivePolicy *policies[] = {&DOWNLOAD_POLICY, &LISTING_POLICY, &REPORT_POLICY};
  sockaddr_in target = endpoint(3223);
  sockaddr_in from = (opts & OPT_FOREIGN_SENDER) ? endpoint(3300) : target;

  unlink(stateName.c_str());
  if (opts & OPT_RECORD_FROM_INPUT) {
    // The record as a resumed download would find it: whatever the input holds.
    SavedRXState rec;
    in.take(&rec, sizeof rec);
    fz::writeFile(stateName, &rec, sizeof rec);
  }
  ReceiveSession s = newSession(*policies[(opts >> 4) % 3], -1, &target, "local", {});
  if (openDownloadState(stateName.c_str(), "remote.bin", &target, &s.state) != StateFailure::None) return;
  if ((s.localFd = memfd_create("local", 0)) < 0) std::abort();
  s.stateName = stateName.c_str();
  s.rxSet = &static_cast<SavedRXState *>(s.state.addr)->rxSet;
  s.zeroPad = (opts & OPT_ZERO_PAD) ? 1 : 0;
  beginSession(s);
  checkVector(s.rxSet);

  in.datagrams<KESTIL_MAX_DATAGRAM>([&](uint8_t *pkt, size_t n, uint8_t) {
    dispatchDatagram(s, pkt, static_cast<int>(n), from);
    checkVector(s.rxSet);
    if (s.errorOut) return false;
    update_progress(s.rxSet);
    return !vectorIsFinished(s.rxSet);
  });
  close(s.localFd);
  closeState(&s.state);
}

void upload(uint8_t opts, fz::Input in) {
  // A file of 0 to 255 full blocks and a tail, so acknowledgements can complete it.
  uint32_t size = static_cast<uint32_t>(in.byte()) * KESTIL_BLOCK_SIZE + in.byte() % KESTIL_BLOCK_SIZE;
  int fileFd = memfd_create("upload", 0);
  if (fileFd < 0 || ftruncate(fileFd, size) != 0) std::abort();
  struct stat st {};
  fstat(fileFd, &st);
  auto *tx = static_cast<KESTIL_TXState *>(std::calloc(1, sizeof(KESTIL_TXState)));
  putInitTxState(tx, fileFd, st);
  if (opts & OPT_ZERO_PAD) cacheFile(tx);  // both ways of reading blocks
  sockaddr_in target = endpoint(3223);
  PutSession s;
  putInitSession(&s, tx, -1, &target, "remote.bin", 0, 1000, 50.0f);
  timeval now{1000, 0};
  in.datagrams<KESTIL_MAX_DATAGRAM>([&](uint8_t *pkt, size_t n, uint8_t) {
    now = timeval{now.tv_sec + (now.tv_usec + 200000) / 1000000, (now.tv_usec + 200000) % 1000000};
    PutStep step = putOnDatagram(&s, pkt, static_cast<int>(n), target, now);
    checkVector(&tx->rxVec);
    if (tx->nextBlkNum > tx->rxVec.lastBlk && tx->nextBlkNum > tx->rxVec.blkNumBase + BLK_RX_WINDOW)
      fz::fail("invariant broken: next block past both the file and the window");
    if (step != PutStep::Continue) return false;
    if (n == 0) (void)putOnIdleTick(&s);  // an empty datagram stands for half a second of silence
    return true;
  });
  releaseFileCache(tx);
  std::free(tx);
  close(fileFd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fz::Input in{data, size};
  uint8_t opts = in.byte();
  if (opts & OPT_UPLOAD)
    upload(opts, in);
  else
    download(opts, in);
  return 0;
}
