// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <signal.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include <vela/VelaPreferencesUtil.h>

#include "platform/prefs/cbor_codec.h"
#include "prefs_test_support.h"

namespace vela::prefs {
namespace {

using Prefs = VelaPreferencesUtil;

// Hands control between processes: a reader blocks until a message arrives or
// every writer has gone (end of file).
class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe2(fds_, O_CLOEXEC), 0); }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void send(std::int64_t message = 0) { EXPECT_EQ(write(fds_[1], &message, sizeof message), ssize_t{sizeof message}); }
  bool receive(std::int64_t* message = nullptr) {
    std::int64_t m = 0;
    if (read(fds_[0], &m, sizeof m) != ssize_t{sizeof m}) return false;
    if (message) *message = m;
    return true;
  }
  void closeRead() { closeEnd(0); }
  void closeWrite() { closeEnd(1); }

 private:
  void closeEnd(int end) {
    if (fds_[end] >= 0) close(fds_[end]);
    fds_[end] = -1;
  }
  int fds_[2] = {-1, -1};
};

std::string keyFor(int writer, int index) {
  std::string key(1, 'w');
  key += std::to_string(writer);
  key += ".k";
  key += std::to_string(index);
  return key;
}

class SeveralWriters : public FreshPreferences {};

TEST_F(SeveralWriters, ProcessesWritingOneDomainAtOnceLoseNothing) {
  constexpr int kProcesses = 4;
  constexpr int kKeys = 25;
  Prefs::setString("parent", "opened", kDomain);  // the parent's connection is open across the forks
  Pipe start;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(runInChild([&start, p] {
      start.closeWrite();
      start.receive();  // end of file once the parent lets every child go at once
      for (int k = 0; k < kKeys; ++k) Prefs::setInteger(p * 1000 + k, keyFor(p, k), kDomain);
      return 0;
    }));
  }
  start.closeWrite();
  for (pid_t child : children) EXPECT_EQ(exitStatus(child), 0);
  for (int p = 0; p < kProcesses; ++p) {
    for (int k = 0; k < kKeys; ++k) EXPECT_EQ(Prefs::integerForKey(keyFor(p, k), kDomain), p * 1000 + k);
  }
  EXPECT_EQ(Prefs::stringForKey("opened", kDomain), "parent");
}

TEST_F(SeveralWriters, ThreadsOfOneProcessLoseNothing) {
  constexpr int kThreads = 4;
  constexpr int kKeys = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int k = 0; k < kKeys; ++k) {
        Prefs::setString(keyFor(t, k), keyFor(t, k), kDomain);
        EXPECT_EQ(Prefs::stringForKey(keyFor(t, k), kDomain), keyFor(t, k));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    for (int k = 0; k < kKeys; ++k) EXPECT_EQ(Prefs::stringForKey(keyFor(t, k), kDomain), keyFor(t, k));
  }
}

// Regression: a child must not inherit the parent's connection state, or the
// parent closing its connection deletes the WAL the child is writing into.
TEST_F(SeveralWriters, AChildsWritesSurviveTheParentClosingItsConnection) {
  Prefs::setString("parent", "p", kDomain);
  Pipe wroteFirst;
  Pipe parentClosed;
  const pid_t child = runInChild([&] {
    Prefs::setString("first", "c1", kDomain);
    wroteFirst.send();
    parentClosed.receive();
    Prefs::setString("second", "c2", kDomain);
    return 0;
  });
  ASSERT_TRUE(wroteFirst.receive());
  // Looking at another file makes this process let go of the shared one.
  setenv(kPathVariable, (dir_ + "/elsewhere.sqlite3").c_str(), 1);
  EXPECT_EQ(Prefs::objectForKey("p", kDomain), std::nullopt);
  setenv(kPathVariable, path_.c_str(), 1);
  parentClosed.send();
  EXPECT_EQ(exitStatus(child), 0);
  EXPECT_EQ(Prefs::stringForKey("c1", kDomain), "first");
  EXPECT_EQ(Prefs::stringForKey("c2", kDomain), "second");
}

VelaDictionary roundValue(std::int64_t round) {
  return {{"round", round}, {"payload", VelaData(2048, static_cast<std::uint8_t>(round))}};
}

TEST_F(SeveralWriters, AWriterKilledMidLoopLeavesAnOldOrNewValueForEveryKey) {
  constexpr int kKeys = 8;
  Pipe progress;
  const pid_t writer = runInChild([&]() -> int {
    progress.closeRead();
    for (std::int64_t round = 1;; ++round) {
      for (int k = 0; k < kKeys; ++k) Prefs::setDictionary(roundValue(round), keyFor(0, k), kDomain);
      progress.send(round);
    }
  });
  progress.closeWrite();
  std::int64_t completed = 0;
  while (completed < 3) ASSERT_TRUE(progress.receive(&completed));
  kill(writer, SIGKILL);
  EXPECT_EQ(exitStatus(writer), -1);
  while (progress.receive(&completed)) {
  }
  // Rounds up to `completed` finished; the next one may have been cut short.
  for (int k = 0; k < kKeys; ++k) {
    const auto value = Prefs::dictionaryForKey(keyFor(0, k), kDomain);
    ASSERT_TRUE(value) << keyFor(0, k);
    const std::int64_t* round = value->at("round").getIf<std::int64_t>();
    ASSERT_TRUE(round);
    EXPECT_TRUE(*round == completed || *round == completed + 1) << *round << " after " << completed;
    EXPECT_EQ(*value, roundValue(*round));
  }
  EXPECT_EQ(RawDatabase(path_).scalar("PRAGMA integrity_check"), "ok");
}

TEST_F(SeveralWriters, ReadsDoNotWaitForAnotherProcesssOpenWrite) {
  Prefs::setString("old", "k", kDomain);
  Pipe holding;
  Pipe release;
  const pid_t writer = runInChild([&] {
    RawDatabase raw(path_);
    // EXCLUSIVE keeps even readers out unless the database is in WAL mode.
    bool ok = raw.exec("BEGIN EXCLUSIVE");
    raw.put(kDomain, "k", *encodeValue("new"));
    holding.send();
    release.receive();
    ok = raw.exec("COMMIT") && ok;
    return ok ? 0 : 1;
  });
  ASSERT_TRUE(holding.receive());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "old");
  EXPECT_EQ(Prefs::objectForKey("absent", kDomain), std::nullopt);
  // A read that waited would only return after the 5 s busy timeout.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  release.send();
  EXPECT_EQ(exitStatus(writer), 0);
  Prefs::synchronizeDomain(kDomain);
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "new");
}

}  // namespace
}  // namespace vela::prefs
