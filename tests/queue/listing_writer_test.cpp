// The listing writer and the directory scan: files that an independent inflater (Python's
// zlib) decodes to the exact record bytes, and what only the scan's unit sees.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "queue/downlink_queue.hpp"
#include "tests/listing/listing_records.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Names = std::vector<std::string>;

// The file's decompressed content as Python's zlib sees it.
std::string pythonInflate(const std::string &path) {
  const std::string cmd =
      "python3 -c \"import sys,zlib;sys.stdout.buffer.write(zlib.decompress("
      "open(sys.argv[1],'rb').read()))\" " +
      path;
  std::string out;
  FILE *p = popen(cmd.c_str(), "r");
  for (int c; p != nullptr && (c = fgetc(p)) != EOF;) out += static_cast<char>(c);
  return p != nullptr && pclose(p) == 0 ? out : "python3 failed";
}

// Finishes and frees the listing, returning its file's path after checking its name.
std::string finish(FileListing *l, const std::string &prefix) {
  const std::string path = listing_file_name(l);
  EXPECT_EQ(path.substr(0, prefix.size()), prefix);
  EXPECT_EQ(path.size(), prefix.size() + 6);
  listing_destroy(l);  // finishes a listing still open
  return path;
}

TEST(ListingWriter, RecordsDecodeIndependentlyToTheirExactBytes) {
  FileListing *l = listing_init(1);
  ASSERT_NE(l, nullptr);
  std::string longName(4118, 'n'), tooLong(5000, 'm');
  File files[] = {{const_cast<char *>(""), 0, 0, 0, 0, nullptr},
                  {const_cast<char *>("a.bin"), 1, 2, 0x80, 0x01020304, nullptr},
                  {longName.data(), 0, 0, 0, 9, nullptr},
                  {tooLong.data(), 0, 0, 0, 9, nullptr}};
  for (File &f : files) listing_add_file(l, &f);
  const std::string path = finish(l, "/tmp/qreport.");
  // A name too long for a record is cut to the 4118 bytes that fit.
  EXPECT_EQ(pythonInflate(path), kt::rawRecord("", 0, 0, 0, 0) + kt::rawRecord("a.bin", 0x01020304, 1, 2, 0x80) +
                                     kt::rawRecord(longName, 9, 0, 0, 0) +
                                     kt::rawRecord(std::string(4118, 'm'), 9, 0, 0, 0));
  unlink(path.c_str());

  const std::string empty = finish(listing_init(0), "/tmp/dirlisting.");
  EXPECT_EQ(pythonInflate(empty), "");
  unlink(empty.c_str());
}

// What only the scan shows: links, sizes past 32 bits, a trailing slash, a plain file and a
// missing path. (Which entries each recursion and hidden flag lists: the ls command against
// kestil-sim, SimListing.EachFlagListsWhatItShould...)
TEST(DirScan, LinksHugeFilesAndPathsThatAreNoDirectory) {
  const std::string x = kt::makeTempDir();
  std::filesystem::create_directories(x + "/d");
  kt::writeFile(x + "/d/c", "1234567");
  ASSERT_EQ(symlink("nowhere", (x + "/dangling").c_str()), 0);
  ASSERT_EQ(symlink("d", (x + "/dirlink").c_str()), 0);  // listed like a file, never descended
  ASSERT_TRUE(kt::writeFile(x + "/huge", "") && truncate((x + "/huge").c_str(), (off_t{1} << 32) + 1) == 0);
  struct stat d {};
  ASSERT_EQ(stat((x + "/d").c_str(), &d), 0);
  auto scan = [](const std::string &path) {
    FileListing *l = listing_from_path(path.c_str(), 1, 0);
    if (l == nullptr) return Names{"no listing"};
    const std::string file = finish(l, "/tmp/dirlisting.");
    Names recs = kt::listingRecords(file);
    unlink(file.c_str());
    return std::sort(recs.begin(), recs.end()), recs;
  };
  Names want{"0/0/0/" + std::to_string(d.st_size) + "/" + x + "/dirlink", "0/0/0/1024/" + x + "/dangling",
             "0/0/0/4294967295/" + x + "/huge", "0/0/0/7/" + x + "/d/c"};
  std::sort(want.begin(), want.end());
  EXPECT_EQ(scan(x + "/"), want);
  EXPECT_EQ(scan(x + "/d/c"), Names{});  // a plain file: a valid, empty listing
  testing::internal::CaptureStdout();
  EXPECT_EQ(scan(x + "/absent"), Names{"no listing"});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "stat failed on path " + x + "/absent\n");
  std::filesystem::remove_all(x);
}

}  // namespace
