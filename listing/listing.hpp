// The listing reader and its table printer: walk a zlib-compressed listing file record by
// record in constant memory.
#pragma once

#include <cstdint>

#include "listing/listing_record.hpp"

// Called once per record. Note the order: flags, group, priority. `filename` points into the
// reader's buffer and is valid only during the call.
typedef void (*iterate_dirlisting_cb)(void *param, uint8_t flags, uint8_t group, uint8_t priority, uint32_t size,
                                      const char *filename);

// -1: the file cannot be opened; -2: the inflate stream cannot be set up; 0 otherwise, also
// when reading stopped early on a damaged file (logged only).
int iterate_dirlisting(const char *listingFile, iterate_dirlisting_cb callback, void *param);
// Prints the listing as a table on standard output; the result of iterate_dirlisting.
int print_dirlisting(const char *listingFile);
