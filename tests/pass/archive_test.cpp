// What decides where a file lands and what the ledger says about it: remote names mapped into
// the archive (".." refused), pass windows read from a schedule, and the ledger against the
// archive after a kill at each step of keeping an earlier version.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "pass/entry_plan.hpp"
#include "pass/schedule.hpp"
#include "tests/support/test_support.hpp"

namespace {

TEST(ArchivePaths, RemoteNamesLandUnderTheArchiveOrAreRefused) {
  // Only the archive's top holds kestil-pass's own files.
  const std::pair<const char *, const char *> cases[] = {{"/data/img/a.jpg", "data/img/a.jpg"},
                                                         {"a//b/./c", "a/b/c"},
                                                         {"notes", "notes"},
                                                         {"x/.kestil-pass.db", "x/.kestil-pass.db"},
                                                         {"..", "DotDot"},
                                                         {"../x", "DotDot"},
                                                         {"a/../../b", "DotDot"},
                                                         {"a/..", "DotDot"},
                                                         {"", "NoFileName"},
                                                         {"/", "NoFileName"},
                                                         {"a/", "NoFileName"},
                                                         {"a/.", "NoFileName"},
                                                         {".kestil-pass.db", "Reserved"},
                                                         {"/.kestil-pass.d/x", "Reserved"},
                                                         {"d/.x.kestil_state", "Reserved"}};
  const char *verdicts[] = {"Ok", "DotDot", "NoFileName", "Reserved"};
  for (auto [remote, want] : cases) {
    ArchivePath p;
    NameVerdict v = mapRemoteName(remote, &p);
    EXPECT_EQ(v == NameVerdict::Ok ? p.rel : verdicts[static_cast<int>(v)], want) << remote;
  }
  ArchivePath p;
  ASSERT_EQ(mapRemoteName("/data/img/a.jpg", &p), NameVerdict::Ok);
  EXPECT_EQ(p.dir + "|" + p.base + "|" + stateFileOf(p), "data/img|a.jpg|data/img/.a.jpg.kestil_state");
  ASSERT_EQ(mapRemoteName("top", &p), NameVerdict::Ok);
  EXPECT_EQ(p.dir + "|" + stateFileOf(p), "|.top.kestil_state");
}

TEST(Schedule, UtcTimesAndWindowsAreReadStrictly) {
  const std::pair<const char *, int64_t> times[] = {{"1970-01-01T00:00:00Z", 0},
                                                    {"2026-11-23T08:01:48Z", 1795420908000},
                                                    {"2024-02-29T12:00:00.25Z", 1709208000250},
                                                    {"2026-11-23T08:01:48+00:00", 1795420908000},
                                                    {"2026-11-23T08:01:48", 1795420908000},
                                                    {"2026-02-29T00:00:00Z", -1},
                                                    {"2026-13-01T00:00:00Z", -1},
                                                    {"2026-11-23T24:00:00Z", -1},
                                                    {"2026-11-23T08:01:48+01:00", -1},
                                                    {"2026-11-23 08:01:48Z", -1},
                                                    {"2026-11-23T08:01Z", -1},
                                                    {"2026-11-23T08:01:48.Z", -1}};
  for (auto [text, ms] : times) {
    int64_t got = -1;
    EXPECT_EQ(parseUtcTime(text, &got) ? got : -1, ms) << text;
  }
  EXPECT_EQ(formatUtc(1795420908999), "2026-11-23T08:01:48Z");

  std::vector<PassWindow> w;
  std::string error;
  ASSERT_TRUE(
      parseSchedule("# AOS LOS\n\n2026-11-23T10:00:00Z 2026-11-23T10:05:00Z\n"
                    "  2026-11-23T08:00:00Z\t2026-11-23T08:10:00Z  \r\n2026-11-23T08:10:00Z 2026-11-23T08:20:00Z",
                    &w, &error))
      << error;
  ASSERT_EQ(w.size(), 3u);  // in time order; windows may touch
  EXPECT_EQ(formatUtc(w[0].startMs) + " " + formatUtc(w[2].endMs), "2026-11-23T08:00:00Z 2026-11-23T10:05:00Z");
  const std::pair<const char *, const char *> bad[] = {
      {"2026-11-23T08:00:00Z", "line 1: not \"START END\" in ISO 8601 UTC"},
      {"\n2026-11-23T08:00:00Z 2026-11-23T08:00:00Z", "line 2: the window ends before it starts"},
      {"2026-11-23T08:00:00Z 2026-11-23T09:00:00Z x", "line 1: not \"START END\" in ISO 8601 UTC"},
      {"2026-11-23T08:30:00Z 2026-11-23T09:00:00Z\n2026-11-23T08:00:00Z 2026-11-23T08:31:00Z",
       "line 1: overlaps the window of line 2"},
  };
  for (auto [text, message] : bad) {
    EXPECT_FALSE(parseSchedule(text, &w, &error)) << text;
    EXPECT_EQ(error, message);
  }
}

// Every file the ledger holds complete is in the archive with its digest.
void expectLedgerAgrees(Ledger &ledger, const std::string &archive) {
  for (const FileRow &f : ledgerFiles(ledger)) {
    if (f.state != FileState::Complete) continue;
    EXPECT_EQ(kt::md5Hex(kt::readFile(archive + "/" + f.local)), f.md5) << f.local;
  }
}

TEST(Ledger, AKillAtAnyStepOfKeepingAnEarlierVersionLeavesItAgreeingWithTheArchive) {
  std::string archive = kt::makeTempDir();
  Ledger ledger;
  std::string error;
  ASSERT_TRUE(ledgerOpen(archive + "/.kestil-pass.db", true, &ledger, &error)) << error;
  PassRow pass;
  pass.host = "h";
  ASSERT_TRUE(ledgerStartPass(ledger, &pass));
  // Held complete: d/a.bin, 5 bytes.
  ASSERT_TRUE(makeDirs(archive, "d") && kt::writeFile(archive + "/d/a.bin", "first"));
  FileRow row;
  row.remote = row.local = "d/a.bin";
  row.size = 5;
  row.md5 = kt::md5Hex("first");
  row.state = FileState::Complete;
  row.completedPass = pass.id;
  ASSERT_TRUE(ledgerSaveFile(ledger, &row));

  // A run killed between the second name and the ledger: the next run finds its link again.
  ASSERT_EQ(link((archive + "/d/a.bin").c_str(), (archive + "/d/a.bin.~1~").c_str()), 0);
  expectLedgerAgrees(ledger, archive);
  QueueEntry next{"d/a.bin", 0, 0, 9};
  EntryPlan plan = planEntry(ledger, next, 3);
  ASSERT_EQ(plan.action, EntryAction::Fetch);
  // ... and one killed after the ledger, before the old name went, is taken up by the next fetch.
  ASSERT_EQ(prepareFetch(archive, ledger, next, &plan, &error), Prepared::Ready) << error;
  EXPECT_FALSE(kt::exists(archive + "/d/a.bin") || kt::exists(archive + "/d/a.bin.~2~"));
  ASSERT_TRUE(kt::writeFile(archive + "/d/a.bin", "first"));  // as if the unlink had not happened
  ASSERT_EQ(prepareFetch(archive, ledger, next, &plan, &error), Prepared::Ready) << error;
  EXPECT_FALSE(kt::exists(archive + "/d/a.bin"));
  expectLedgerAgrees(ledger, archive);
  std::vector<FileRow> files = ledgerFiles(ledger);
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].local + " " + fileStateName(files[0].state) + " " + std::to_string(files[0].current),
            "d/a.bin.~1~ complete 0");
  EXPECT_EQ(files[1].local + " " + fileStateName(files[1].state) + " " + std::to_string(files[1].attempts),
            "d/a.bin partial 2");
  // A pass the kill left open is closed as killed by the next run, and only then.
  ASSERT_TRUE(ledgerCloseKilledPasses(ledger));
  EXPECT_EQ(ledgerPasses(ledger).at(0).ended, "killed");
  ledgerClose(&ledger);
  std::filesystem::remove_all(archive);
}

}  // namespace
