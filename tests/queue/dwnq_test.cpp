// The download queue, its data file and its report, each test in a fresh working directory
// with a fresh queue.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

#include "queue/downlink_queue.hpp"
#include "tests/listing/listing_records.hpp"
#include "tests/queue/queue_records.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Names = std::vector<std::string>;

struct Queue : ::testing::Test {
  void SetUp() override {
    std::filesystem::current_path(dir);
    dwnq_close();
    dwnq_init("q.dat");  // created empty
  }
  void TearDown() override {
    dwnq_close();
    std::filesystem::current_path(oldCwd);
    std::filesystem::remove_all(dir);
  }
  // Makes the files and queues them in `group` with `priority`.
  static void add(std::initializer_list<const char *> names, uint8_t group, uint8_t priority, size_t size = 1) {
    for (const char *n : names) {
      kt::writeFile(n, std::string(size, 'x'));
      dwnq_insert(n, group, priority, 0);
    }
  }
  static Names order(uint8_t group) {
    Names names;
    iterate_listing_group(
        group, [](const char *n, uint8_t, uint8_t, void *a) { return static_cast<Names *>(a)->emplace_back(n), 0; },
        &names);
    return names;
  }
  static Names dataRecords() { return kt::queueRecords(kt::readFile("q.dat")); }
  std::filesystem::path oldCwd = std::filesystem::current_path();
  std::string dir = kt::makeTempDir();
};

// "f0", "f1", ...: built with snprintf, since g++ 12 at -O2 takes "f" + std::string for an overlap.
std::string fileName(int i) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "f%d", i);
  return buf;
}

TEST_F(Queue, DataFileRecordsAppendRewriteAndReload) {
  ASSERT_TRUE(kt::writeFile("huge", "") && truncate("huge", off_t{1} << 32) == 0);  // size past 32 bits
  testing::internal::CaptureStderr();
  dwnq_insert("missing", 1, 0, 0);
  dwnq_insert("huge", 1, 0, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed stats\nFile huge too large to queue\n");
  kt::writeFile("a.bin", std::string(10, 'x'));
  dwnq_insert("a.bin", 3, 7, 0x80);
  EXPECT_EQ(kt::readFile("q.dat"), std::string("\x09\0a.bin\0\x03\x07\x80", 11));  // nothing of the refused ones
  EXPECT_EQ(groups[1].head, nullptr);
  add({"A"}, 5, 0);
  add({"B"}, 1, 0);
  add({"C"}, 5, 0);
  dwnq_insert("A", 5, 0, 1);  // a move: rewritten without it, then appended
  EXPECT_EQ(dataRecords(), (Names{"B/1/0/0", "a.bin/3/7/128", "C/5/0/0", "A/5/0/1"}));
  dwnq_remove("C", 5);
  EXPECT_EQ(dataRecords(), (Names{"B/1/0/0", "a.bin/3/7/128", "A/5/0/1"}));

  unlink("B");  // dropped at the next load, kept in the file until a rewrite
  dwnq_close();
  testing::internal::CaptureStderr();
  dwnq_init("q.dat");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed stats\n");
  EXPECT_EQ(order(1).size() + order(3).size() + order(5).size(), 2u);
  EXPECT_EQ(groups[3].head->size + groups[3].head->flags, 10u + 0x80);
  EXPECT_EQ(dataRecords().size(), 3u);
}

TEST_F(Queue, LoadingSkipsMalformedRecordsAndKeepsRecordsNotYetRead) {
  // Entry length 2 (no room for the attributes), a name without its zero byte, a good
  // record, one stray byte: nothing past a record is read, and the file loses only the
  // stray byte, so that the next append starts a record of its own.
  dwnq_close();
  kt::writeFile("a", "");
  const std::string bad = std::string("\x02\0ab\x06\0abcdef", 12) + kt::queueRecord("a", 1) + "\x07";
  kt::writeFile("q.dat", bad);
  dwnq_init("q.dat");
  EXPECT_EQ(order(1), (Names{"a"}));
  EXPECT_EQ(kt::readFile("q.dat"), bad.substr(0, bad.size() - 1));
  dwnq_insert("a", 2, 0, 0);
  dwnq_close();
  dwnq_init("q.dat");
  EXPECT_EQ(order(2), (Names{"a"}));

  // An overfull group and a duplicate make loading remove entries; the record read after
  // them is still loaded, and the file is rewritten once, to match the queue.
  dwnq_close();
  std::string file;
  for (int i = 0; i <= 1024; ++i) file += kt::queueRecord(fileName(i), 0);
  for (int i = 0; i <= 1024; ++i) kt::writeFile(fileName(i), "");
  kt::writeFile("q.dat",
                file + kt::queueRecord("f0", 0, 0, 2) + kt::queueRecord("a", 1) + kt::queueRecord("a", 1).substr(0, 5));
  dwnq_init("q.dat");  // the last record is cut short: loading stops there
  const Names g0 = order(0), recs = dataRecords();
  EXPECT_EQ(std::to_string(g0.size()) + " " + g0.front() + " " + g0.back(), "1024 f1 f0");
  EXPECT_EQ(order(1), (Names{"a"}));
  ASSERT_EQ(recs.size(), 1025u);
  EXPECT_EQ(recs[1022] + " " + recs[1023] + " " + recs[1024], "f1023/0/0/0 f0/0/0/2 a/1/0/0");
}

// The names a report under `limits` lists.
Names report(std::vector<GroupLimit> limits) {
  FileListing *l = dwnq_report(limits.empty() ? nullptr : limits.data(), static_cast<int>(limits.size()));
  const std::string path = listing_file_name(l);
  listing_destroy(l);
  Names names;
  for (const std::string &r : kt::listingRecords(path)) names.push_back(r.substr(r.rfind('/') + 1));
  unlink(path.c_str());
  return names;
}

// Size limits to the byte, each group by its own. (Entry-count limits and which groups a
// limited report lists: the queue commands against kestil-sim.)
TEST_F(Queue, ReportCutsEachGroupByItsOwnLimits) {
  EXPECT_EQ(report({}), Names{});  // an empty queue: a valid, empty listing
  for (auto [name, size] : {std::pair{"a1", 60}, {"a2", 30}, {"a3", 20}, {"a4", 5}}) add({name}, 1, 0, size);
  for (auto [name, size] : {std::pair{"c1", 60}, {"c2", 30}, {"c3", 5}}) add({name}, 4, 0, size);
  EXPECT_EQ(report({{1, 100, 0}}), (Names{"a1", "a2"}));  // the 20 would pass 100: the 5 is not tried
  EXPECT_EQ(report({{4, 90, 0}}), (Names{"c1", "c2"}));   // 90 reached
  // No limit for group 4 but the first one given for it.
  EXPECT_EQ(report({{1, 0, 2}, {4, 0, 0}, {4, 0, 1}}), (Names{"a1", "a2", "c1", "c2", "c3"}));
  // 60 + 20 + 5 + 0xFFFFFFF0 passes 100, though the 32-bit sum would wrap to 69.
  ASSERT_TRUE(kt::writeFile("big", "") && truncate("big", 0xFFFFFFF0) == 0);
  dwnq_insert("big", 1, 0, 0x41);
  dwnq_remove("a2", 1);
  EXPECT_EQ(report({{1, 100, 0}}), (Names{"a1", "a3", "a4"}));
}

}  // namespace
