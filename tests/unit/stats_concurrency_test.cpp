// The shared statistics block: its names, sharing between real processes,
// the cross-process lock around the log file, and recovery of a lock whose
// holder was killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "sf/base/statsattach.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace fs = std::filesystem;
using sftest::TempDir;

namespace {

// Names a block of its own (after a fresh temporary directory) while it
// lives; then removes the names and unsets the naming variables.
struct OwnBlock {
  TempDir dir;
  std::string blockName, mutexName;
  OwnBlock() {
    setenv("TAVO_WIN_MEM_GLOBAL", "OFF", 1);
    setenv("TAVODATDIR", dir.str().c_str(), 1);
    blockName = sf::statsBlockName();
    mutexName = sf::statsMutexName();
  }
  ~OwnBlock() {
    fs::remove("/dev/shm/" + blockName);
    fs::remove("/dev/shm/" + mutexName);
    unsetenv("TAVODATDIR");
    unsetenv("TAVO_WIN_MEM_GLOBAL");
  }
};

// The block this test process shares with its children.
OwnBlock& ownBlock() {
  static OwnBlock block;
  return block;
}

// Runs fn in a forked child, which exits 0 if fn returns; waitChild gives its
// wait status.
template <typename Fn>
pid_t forkChild(Fn fn) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    fn();
    _exit(0);
  }
  return pid;
}

int waitChild(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

// The second process: this test program run again with SF_STATS_SECOND set,
// which attaches the block the first process made (the environment names
// it), checks what that process left, writes one byte and exits before any
// test runs.
int secondProcess() {
  if (sf::sfi_attachStats() != 0 || sf::statsCreatedBlock()) return 1;
  unsigned char* block = static_cast<unsigned char*>(sf::statsBlock());
  if (block[0] != 42) return 2;
  if (strcmp(reinterpret_cast<char*>(block + sf::kStatsSecondRegion), "left by the first") != 0)
    return 3;
  block[1] = 7;
  return 0;
}

const bool kRunAsSecond = [] {
  if (getenv("SF_STATS_SECOND")) _exit(secondProcess());
  return false;
}();

// The block cannot be had (a directory holds its name); the library goes on
// without it and the log file still works.
int unattachedProcess() {
  fs::path blocker = "/dev/shm/" + sf::statsBlockName();
  fs::create_directory(blocker);
  int attached = sf::sfi_attachStats();
  fs::remove(blocker);
  if (attached != -1 || sf::statsAttached() || sf::statsBlock()) return 1;
  sf::lockStats();  // nothing to take: must not block
  sf::unlockStats();
  fs::path logs = getenv("TAVODATDIR");  // a directory the parent removes
  sftest::logToFile(logs.string(), 1);
  sf::sfi_log(1, 0, "written without the block", __FILE__, __LINE__, 0);
  std::string text = sftest::readFile(logs / "unit.log");
  return text.find("written without the block") == std::string::npos ? 2 : 0;
}

}  // namespace

TEST(StatsNames, FollowTheEnvironment) {
  OwnBlock restore;
  setenv("TAVO_WIN_MEM_GLOBAL", "OFF", 1);
  setenv("TAVODATDIR", "C:/data", 1);
  EXPECT_EQ(sf::statsBlockName(), "estatC__data_shm");
  EXPECT_EQ(sf::statsMutexName(), "estatC__data_mx");

  setenv("TAVODATDIR", "D:\\tavo\\inst1", 1);
  setenv("TAVO_WIN_MEM_GLOBAL", "off", 1);  // only exactly OFF leaves the global space
  EXPECT_EQ(sf::statsBlockName(), "Global\\estatD__tavo_inst1_shm");
  unsetenv("TAVO_WIN_MEM_GLOBAL");
  unsetenv("TAVODATDIR");
  EXPECT_EQ(sf::statsBlockName(), "Global\\estat_shm");
  EXPECT_EQ(sf::statsMutexName(), "Global\\estat_mx");

  // 255 characters at most, and the two names stay distinct.
  setenv("TAVODATDIR", std::string(400, 'x').c_str(), 1);
  std::string block = sf::statsBlockName(), mutex = sf::statsMutexName();
  EXPECT_EQ(block.size(), 255u);
  EXPECT_EQ(block.substr(block.size() - 4), "_shm");
  EXPECT_EQ(mutex.substr(mutex.size() - 3), "_mx");
  EXPECT_EQ(block.substr(0, 251), mutex.substr(0, 251));
}

TEST(StatsBlock, CreatorZeroesItAndASecondProcessFindsItAsLeft) {
  OwnBlock& own = ownBlock();
  fs::path estat = own.dir.path() / "estat.log";
  setenv("ESTAT_LOG", estat.c_str(), 1);
  sf::StatDescriptor early{"host_op", sf::STAT_TIMER, 9, 0, "registered by the host first"};
  ASSERT_TRUE(sf::registerStatDescriptor(early));

  ASSERT_EQ(sf::sfi_attachStats(), 0);
  EXPECT_EQ(sf::sfi_attachStats(), 0) << "a second attach returns the first result";
  ASSERT_TRUE(sf::statsAttached());
  EXPECT_TRUE(sf::statsCreatedBlock());
  unsigned char* block = static_cast<unsigned char*>(sf::statsBlock());
  for (size_t i = 0; i < sf::kStatsBlockSize; ++i) ASSERT_EQ(block[i], 0) << "byte " << i;

  fs::perms perms = fs::status("/dev/shm/" + sf::statsBlockName()).permissions();
  EXPECT_EQ(perms & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write |
                                        fs::perms::group_read | fs::perms::group_write);
  EXPECT_EQ(fs::status("/dev/shm/" + sf::statsMutexName()).permissions() & fs::perms::others_all,
            fs::perms::none);

  // The host's row stays first; the library's rows follow.
  int timers = 0;
  const sf::StatDescriptor* t = sf::statDescriptors(sf::STAT_TIMER, &timers);
  EXPECT_STREQ(t[0].name, "host_op");
  for (int i = 1; i < timers; ++i) EXPECT_EQ(t[i].kind, sf::STAT_TIMER);

  // Counters written here are seen, and kept, by another process.
  strcpy(reinterpret_cast<char*>(block + sf::kStatsSecondRegion), "left by the first");
  block[0] = 42;
  pid_t second = forkChild([] {
    setenv("SF_STATS_SECOND", "1", 1);
    execl("/proc/self/exe", "self", static_cast<char*>(nullptr));
    _exit(99);
  });
  EXPECT_EQ(waitChild(second), 0) << "the second process did not find the block as left";
  EXPECT_EQ(block[1], 7) << "the second process's write is not seen here";

  std::string notes = sftest::readFile(estat);
  EXPECT_NE(notes.find("(created)"), std::string::npos) << notes;
  EXPECT_NE(notes.find("(existing)"), std::string::npos) << notes;
  unsetenv("ESTAT_LOG");
}

TEST(StatsBlock, WithoutTheBlockTheLogStillWorks) {
  OwnBlock other;
  sftest::runInChild(unattachedProcess);
}

TEST(StatsBlock, LockOfAKilledHolderIsTakenOver) {
  OwnBlock& own = ownBlock();
  ASSERT_EQ(sf::sfi_attachStats(), 0);
  // The log file is written under the same lock: a record waits for it.
  sftest::logToFile(own.dir.str(), 1);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t holder = forkChild([&] {
    sf::lockStats();
    sf::lockStats();  // recursive, like the named mutex it stands for
    char c = 'x';
    (void)!write(ready[1], &c, 1);
    for (;;) pause();
  });
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);

  std::promise<void> locked;
  std::future<void> gotIt = locked.get_future();
  std::thread waiter([&] {
    sf::sfi_log(1, 0, "written after the holder", "f", 1, 0);
    locked.set_value();
  });
  // The holder keeps the lock until it is killed.
  EXPECT_EQ(gotIt.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  kill(holder, SIGKILL);
  EXPECT_TRUE(WIFSIGNALED(waitChild(holder)));
  if (gotIt.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
    ADD_FAILURE() << "the lock of a killed holder was never released";
    _exit(1);
  }
  waiter.join();
  EXPECT_NE(sftest::readFile(own.dir.path() / "unit.log").find("written after the holder"),
            std::string::npos);
  // And it still serialises: another process gets it after us.
  sf::lockStats();
  sf::unlockStats();
  EXPECT_EQ(WEXITSTATUS(waitChild(forkChild([] {
              sf::lockStats();
              sf::unlockStats();
            }))),
            0);
  close(ready[0]);
  close(ready[1]);
}
