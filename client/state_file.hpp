// The partial-download state files: the download's SavedRXState record beside each data
// file, and the bare vector record of listing and report fetches. Both are raw images that
// the sessions map shared and update in place.
#pragma once

#include <netinet/in.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "common/blk_rx_vector.hpp"
#include "common/file_handles.hpp"

constexpr size_t STATE_NAME_MAX = 1600;         // state file name buffer with its terminator
constexpr size_t STATE_REMOTE_NAME_MAX = 2048;  // characters of the remote name kept
constexpr const char *STATE_SUFFIX = ".kestil_state";
// ".%s.kestil_state" must fit the name buffer: 1 + name + 13 + terminator.
constexpr size_t LOCAL_NAME_MAX = STATE_NAME_MAX - 15;

// The remote endpoint as stored: fixed widths whatever the platform's sockaddr_in is.
struct SavedEndpoint {
  uint16_t family;  // little-endian, 2
  uint8_t port[2];  // big-endian
  uint8_t addr[4];  // network order
  uint8_t zero[8];
};

struct SavedRXState {
  uint8_t fileNum[4];  // big-endian; never assigned by this client
  SavedEndpoint src;
  BlkRxVector rxSet;
  char filename[STATE_REMOTE_NAME_MAX + 1];
  uint8_t padding[3];
};

static_assert(std::is_trivially_copyable_v<SavedRXState>);
static_assert(sizeof(SavedEndpoint) == 16);
static_assert(sizeof(SavedRXState) == 2248);
static_assert(offsetof(SavedRXState, fileNum) == 0);
static_assert(offsetof(SavedRXState, src) == 4);
static_assert(offsetof(SavedRXState, src) + offsetof(SavedEndpoint, family) == 4);
static_assert(offsetof(SavedRXState, src) + offsetof(SavedEndpoint, port) == 6);
static_assert(offsetof(SavedRXState, src) + offsetof(SavedEndpoint, addr) == 8);
static_assert(offsetof(SavedRXState, src) + offsetof(SavedEndpoint, zero) == 12);
static_assert(offsetof(SavedRXState, rxSet) == 20);
static_assert(offsetof(SavedRXState, filename) == 196);
static_assert(offsetof(SavedRXState, padding) == 2245);

// ".%s.kestil_state" for a local name; false (buffer untouched) when it does not fit.
bool downloadStateName(const char *localName, char out[STATE_NAME_MAX]);
// The progress command's reading of its argument: a state file name itself when it is longer
// than 14 characters, starts with '.' and ends with ".kestil_state".
bool isStateFileName(const char *arg);

// The initial record of a new download: vector with block size 1, the remote name and endpoint.
void initSavedRXState(SavedRXState *st, const char *remoteName, const struct sockaddr_in *src);

// True when a state file of status `st` is exactly one record of `recordSize` bytes: a file of
// any other size is never mapped.
bool holdsOneRecord(const struct stat &st, size_t recordSize);

// An open, mapped state file. The mapping is shared with the file, so every change to the
// record lands in it at once.
struct StateMapping : Mapping {
  UniqueFd fd;
};

// What the sessions do with a state file that cannot be set up.
enum class StateFailure { None, Fatal };

// Creates (when absent, or when shorter than a whole record) or opens the download record
// and maps it. Prints the failure messages; the caller cleans up and exits.
[[nodiscard]] StateFailure openDownloadState(const char *stateName, const char *remoteName,
                                             const struct sockaddr_in *src, StateMapping *out);
// The same for the 176-byte vector record of a listing or report fetch.
[[nodiscard]] StateFailure openVectorState(const char *stateName, StateMapping *out);
// Unmaps the record and closes its file.
void closeState(StateMapping *m);
