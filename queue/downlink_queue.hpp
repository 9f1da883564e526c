// The download queue, its data file and report builder, the listing writer and the local
// directory scan: the producing side of directory listings and queue reports.
#pragma once

#include <zlib.h>

#include <cstdint>

#include "common/wire.hpp"

// One queue entry, and the carrier of one listing record's fields.
struct File {
  char *name;  // owned
  uint8_t group;
  uint8_t priority;
  uint8_t flags;
  uint32_t size;
  File *groupNext;
};

struct Group {
  uint32_t totalSize;
  uint32_t fileCnt;
  File *head;
  File *tail;
};

// A listing file under construction.
struct FileListing {
  char *name;  // owned
  int fd;      // -1 once finished
  z_stream zstr;
};

constexpr uint8_t LISTING_FLAG_DIR = 0x80;  // a directory listed without being descended into
constexpr uint32_t DWNQ_GROUP_CAP = 1024;
constexpr int DWNQ_GROUPS = 256;

// Listing writer. type 0: directory listing ("/tmp/dirlisting.XXXXXX"), else queue report.
FileListing *listing_init(int type);
void listing_add_file(FileListing *listing, File *file);
void listing_done_adding(FileListing *listing);
const char *listing_file_name(FileListing *listing);
void listing_destroy(FileListing *listing);

// Local directory scan into a finished directory listing, or null.
FileListing *listing_from_path(const char *path, int recurse, int includeHidden);

// The download queue.
extern Group groups[DWNQ_GROUPS];
extern int dwnq_initialized;
extern int datafd;

typedef int (*listing_itr_cb)(const char *name, uint8_t group, uint8_t priority, void *arg);

void dwnq_init(const char *queueFile);
void dwnq_insert(const char *name, uint8_t group, uint8_t priority, uint8_t flags);
void dwnq_remove(const char *name, uint8_t group);
void iterate_listing_group(uint8_t groupNum, listing_itr_cb cb, void *arg);
void dwnq_cleanup();
void add_to_data_file(File *node);
void update_data_file();
// Frees every entry, zeroes every group, closes the data file and marks the queue not
// loaded: the state before the first dwnq_init (for tests and for restarting the service).
void dwnq_close();

// Internal steps of insertion and removal, shared by the queue and its data file.
// Links `node` after `prevLoc` (null: at the head) and before `insLoc`, counts it and applies
// the group cap; -1 when the cap dropped `node` itself, else 0.
int insert_node_internal(Group *group, File *prevLoc, File *insLoc, File *node);
// Unlinks `loc` (whose predecessor is `prev`, null for the head), uncounts it, rewrites the
// data file and frees the entry when `shouldFreeNode` is non-zero.
void remove_node_internal(Group *group, File *prev, File *loc, int shouldFreeNode);

// The queue report under per-group limits (plain numbers, not wire order), or null.
FileListing *dwnq_report(GroupLimit *limits, int limLen);
