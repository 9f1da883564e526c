// The qadd, qrm and status commands: one request and one response each with the on-board
// file manager, through the station layer's exchange.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/client.hpp"
#include "common/filemgr_wire.hpp"
#include "station/station.hpp"

namespace {

constexpr const char *FILEMGR_SERVICE = "filemgr";
constexpr int FILEMGR_TIMEOUT = 5000;

constexpr int RESULT_WRONG_CODE = 5;
constexpr int RESULT_REFUSED = 6;

// qrm shows the same synopsis as qadd.
const char QUEUE_USAGE[] = "qadd [-h host] [-g <group num>] [-p <priority num>] <file>";

void printWrongCode(uint8_t got, uint8_t expected) {
  std::printf("response code incorrect.  Got 0x%02X expected 0x%02X\n", got, expected);
}

// Add (with -p) or remove one queue entry; the handler's result is the exit status.
int queueOperation(int argc, char **argv, uint8_t cmd, uint8_t expectedResp, const char *optstring) {
  uint8_t req[QOP_MAX_LEN + 1] = {};
  req[0] = cmd;
  const char *host = DEFAULT_HOST;

  optind = 0;
  int c;
  while ((c = getopt(argc, argv, optstring)) != -1) {
    switch (c) {
      case 'h': host = optarg; break;
      case 'g': req[QOP_GROUP] = static_cast<uint8_t>(std::atol(optarg)); break;
      case 'p': req[QOP_PRIORITY] = static_cast<uint8_t>(std::atol(optarg)); break;
      default: return printSynopsis(QUEUE_USAGE);
    }
  }
  if (optind >= argc) return printSynopsis(QUEUE_USAGE);
  const char *name = argv[optind];
  size_t nameLen = std::strlen(name);
  if (QOP_NAME + nameLen + 1 > QOP_MAX_LEN) {
    std::printf("File name %s too long\n", name);
    return -1;
  }
  req[QOP_FLAGS] = 0;
  std::memcpy(req + QOP_NAME, name, nameLen + 1);
  int len = static_cast<int>(QOP_NAME + nameLen + 1);

  uint8_t resp[2] = {};
  int got = socket_send_packet_and_read_response(host, FILEMGR_SERVICE, req, len, resp, sizeof resp, FILEMGR_TIMEOUT);
  if (got <= 0) return got;
  if (resp[0] != expectedResp) {
    printWrongCode(resp[0], expectedResp);
    return RESULT_WRONG_CODE;
  }
  int8_t result = static_cast<int8_t>(resp[1]);
  if (result != 0) {
    std::printf("bad result code %d from add operation\n", result);
    return RESULT_REFUSED;
  }
  return 0;
}

}  // namespace

int qadd_cmd(int argc, char **argv) { return queueOperation(argc, argv, FILEMGR_ADD, FILEMGR_ADD_RESP, "h:p:g:"); }

int qrm_cmd(int argc, char **argv) { return queueOperation(argc, argv, FILEMGR_RM, FILEMGR_RM_RESP, "h:g:"); }

int filemgr_status_cmd(int argc, char **argv) {
  const char *host = argc > 1 ? argv[1] : nullptr;
  uint8_t req = FILEMGR_STATUS;
  uint8_t resp = 0;
  int got = socket_send_packet_and_read_response(host, FILEMGR_SERVICE, &req, 1, &resp, 1, FILEMGR_TIMEOUT);
  if (got < 1) return got;
  if (resp != FILEMGR_STATUS_RESP) {
    printWrongCode(resp, FILEMGR_STATUS_RESP);
    return RESULT_WRONG_CODE;
  }
  return 0;
}
