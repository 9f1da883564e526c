// The progress bar redrawn by every pass of the receive loops, and the progress command that
// prints a partial download's state record with its block map.
#include "client/progress.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/client.hpp"
#include "client/state_file.hpp"
#include "common/file_handles.hpp"
#include "common/wire.hpp"

namespace {
const char SPINNER[] = "|/-\\";
unsigned spinnerIndex = 0;

constexpr int BAR_CELLS = 50;
constexpr uint32_t MAP_LINE = 64;  // blocks per line of the block map
}  // namespace

void update_progress(const BlkRxVector *rxSet) {
  uint32_t percent = rxSet->lastBlk != 0 ? rxSet->uniqueBlkCnt * 100u / rxSet->lastBlk : 0;
  char bar[60] = {};
  for (uint32_t i = 0; i < BAR_CELLS; ++i) {
    if (i < percent / 2)
      bar[i] = '=';
    else if (i == percent / 2)
      bar[i] = SPINNER[spinnerIndex];
    else
      bar[i] = ' ';
  }
  spinnerIndex = (spinnerIndex + 1) % (sizeof SPINNER - 1);
  std::printf("\r[%s]", bar);
  std::fflush(stdout);
}

namespace {

// The block map: 64 blocks a line from the window's base; blocks past the window's reach are
// elided down to the file's last line, which is always drawn (all missing).
void printBlockMap(const BlkRxVector *vec) {
  uint64_t base = vec->blkNumBase;
  uint64_t last = vec->lastBlk;
  uint64_t lineStart = base % MAP_LINE;
  uint64_t b = base;
  for (; b < last && b < base + BLK_RX_WINDOW; ++b) {
    if (b % MAP_LINE == lineStart) {
      if (b != base) std::putchar('\n');
      std::printf("%08llu: ", static_cast<unsigned long long>(b));
    }
    std::putchar(blkIsInVector(vec, static_cast<uint32_t>(b)) ? '.' : 'O');
  }
  std::putchar('\n');
  if (b < last) {
    std::printf("........: OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO");
    while (b + MAP_LINE < last) b += MAP_LINE;
    for (; b < last; ++b) {
      if (b % MAP_LINE == lineStart) std::printf("\n%08llu: ", static_cast<unsigned long long>(b));
      std::putchar('O');
    }
    std::putchar('\n');
  }
}

}  // namespace

int printStateRecord(const SavedRXState *state) {
  const BlkRxVector *vec = &state->rxSet;

  in_addr host{};
  std::memcpy(&host.s_addr, state->src.addr, 4);
  std::printf("Remote file: %.*s\n", static_cast<int>(sizeof state->filename), state->filename);
  std::printf("File number: %u\n", loadBe32(state->fileNum));
  std::printf("Remote host: %s:%d\n", inet_ntoa(host), loadBe16(state->src.port));
  std::printf("Block size: %d\n", static_cast<int>(vec->block_size));

  if (!blkRxVectorIsUsable(vec)) {
    std::printf("State record is damaged: bitmap index %d, base %u\n", static_cast<int>(vec->head), vec->blkNumBase);
    return 1;
  }
  if (vectorIsFinished(vec)) {
    std::puts("Download complete!!!");
    return 1;
  }
  // Before the metadata the block count is unknown: show 0.0 rather than divide by zero.
  double percent = vec->lastBlk != 0 ? vec->uniqueBlkCnt * 100.0 / vec->lastBlk : 0.0;
  std::printf("Percent complete: %.1lf (%d / %d)\n", percent, static_cast<int>(vec->uniqueBlkCnt),
              static_cast<int>(vec->lastBlk));
  if (vec->blkNumBase > 1) std::printf("Received: 0 - %d\n", static_cast<int>(vec->blkNumBase - 1));
  printBlockMap(vec);
  return 0;
}

namespace {

// The state file's name for the progress command's argument; ends the command when none fits.
void stateNameFor(const char *arg, char (&stateName)[STATE_NAME_MAX]) {
  if (isStateFileName(arg)) {
    if (std::strlen(arg) >= STATE_NAME_MAX) {
      std::printf("State file name too long: %s\n", arg);
      std::exit(1);
    }
    std::strcpy(stateName, arg);
  } else if (!downloadStateName(arg, stateName)) {
    std::printf("Local file name too long (more than %zu characters): %s\n", LOCAL_NAME_MAX, arg);
    std::exit(1);
  }
}

// Only a file of exactly one record is shown; anything else ends the command.
void requireOneRecord(const struct stat &st) {
  if (holdsOneRecord(st, sizeof(SavedRXState))) return;
  std::printf("State size mismatch!  Expected %lu found %lu\n", static_cast<unsigned long>(sizeof(SavedRXState)),
              static_cast<unsigned long>(st.st_size));
  std::exit(1);
}

// Maps the state file read-only and prints its record; the result of printStateRecord.
int showStateFile(const char *stateName) {
  struct stat st {};
  if (stat(stateName, &st) != 0) {
    std::perror("state file doesn't exist");
    std::printf("File name: %s\n", stateName);
    std::exit(1);
  }
  requireOneRecord(st);
  UniqueFd sfd(open(stateName, O_RDONLY));
  if (!sfd.valid()) {
    std::perror("resume fd");
    std::exit(1);
  }
  // The file may have changed since its status was taken: map it only while it is whole.
  if (fstat(sfd.get(), &st) != 0) st.st_size = -1;
  requireOneRecord(st);
  Mapping map = Mapping::shared(sfd.get(), sizeof(SavedRXState), PROT_READ);
  if (map.addr == nullptr) {
    std::perror("mmap 1");
    std::exit(1);
  }
  return printStateRecord(static_cast<const SavedRXState *>(map.addr));
}

}  // namespace

void printDownloadProgress(const char *local_filename) {
  if (local_filename == nullptr || local_filename[0] == '\0') {
    std::puts("Missing file name");
    std::exit(1);
  }
  char stateName[STATE_NAME_MAX];
  stateNameFor(local_filename, stateName);
  std::printf("State file is %s\n", stateName);
  int status = showStateFile(stateName);
  if (status != 0) std::exit(status);
}

int progress_cmd(int argc, char **argv) {
  if (argc >= 2)
    printDownloadProgress(argv[1]);
  else
    std::puts("Usage: progress <file>");
  return 0;
}
