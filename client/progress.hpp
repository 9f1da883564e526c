// The progress bar of the receive loops and the progress command's display of a state record.
#pragma once

#include "common/blk_rx_vector.hpp"

struct SavedRXState;

// Redraws the progress bar in place.
void update_progress(const BlkRxVector *rxSet);
// Prints a mapped state record: where the download comes from, how far it got and its block
// map. 0 when all of it was printed, else the command's exit status (1: a damaged record, or
// a complete download).
int printStateRecord(const SavedRXState *state);
// Prints where a partial download comes from and its block map; ends the process with status 1
// on every failure and for a complete download.
void printDownloadProgress(const char *local_filename);
