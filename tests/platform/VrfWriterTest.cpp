// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Who may provide a VRF status table, and who may write it.

#include "tests/platform/Messages.h"
#include "tests/platform/VrfTable.h"
#include "tests/support/Skip.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

namespace Ipsec::Testing {
namespace {

namespace fs = std::filesystem;

constexpr uid_t stranger = 65534;

class VrfWriters : public VrfTable {
 protected:
  // The files in the folder of the segments that belong to the test's table, without the segment itself.
  std::vector<fs::path> lockFiles() const {
    std::vector<fs::path> found;
    for (const auto& file : fs::directory_iterator("/dev/shm")) {
      if (file.path().filename().string().rfind(name.substr(1) + ".", 0) == 0) {
        found.push_back(file.path());
      }
    }
    return found;
  }

  int createError() const {
    return errorOf([this] { (void)create(); });
  }
  int openError() const {
    return errorOf([this] { (void)open(); });
  }
  int createErrorInChild() const {
    return inChild([this] { return createError(); });
  }
};

class VrfStrangers : public VrfWriters {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      IPSEC_SKIP("only root can become another user");
    }
  }

  // Makes a call as another user.
  static int asStranger(const std::function<int()>& call) {
    return inChild([&call] {
      const bool changed = setresgid(stranger, stranger, stranger) == 0 && setresuid(stranger, stranger, stranger) == 0;
      return changed ? call() : 255;
    });
  }
};

// --- Who may be believed ---------------------------------------------------------------------------------------------

TEST_F(VrfStrangers, ATableThatAnotherUserPlantedIsRefused) {
  ASSERT_EQ(asStranger([this] { return errorOf([this] { create()->set(VrfEntry(VrfId(7), "planted")); }); }), 0);
  EXPECT_EQ(openError(), EACCES);
  EXPECT_EQ(createError(), EACCES);
  EXPECT_EQ(asStranger([this] { return openError(); }), 0) << "whose table it is may read it";
  const std::string file = "/dev/shm" + name;
  ASSERT_EQ(chown(file.c_str(), 1, 0), 0);
  EXPECT_EQ(openError(), EACCES);
  EXPECT_EQ(asStranger([this] { return openError(); }), EACCES) << "neither root's nor the reader's own";
  EXPECT_EQ(messageOf([this] { (void)open(); }),
            "VRF status table " + name + ": belongs to another user: Permission denied");
}

TEST_F(VrfStrangers, ATableOfRootIsReadByEverybodyAndWrittenByNobodyElse) {
  const VrfWriter writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  const int answer = asStranger([this] {
    const bool readable = open()->vrfEntry(VrfId(7)).name() == "red";
    return readable ? createError() : 255;
  });
  EXPECT_EQ(answer, EACCES);
}

TEST_F(VrfStrangers, ALockFileThatAnotherUserPlantedIsRefused) {
  (void)create();
  ASSERT_EQ(lockFiles().size(), 1U);
  ASSERT_EQ(chown(lockFiles()[0].c_str(), stranger, stranger), 0);
  EXPECT_EQ(createError(), EACCES);
  EXPECT_EQ(openError(), 0) << "readers do not need it";
}

TEST_F(VrfWriters, ATableThatGroupOrOthersMayWriteIsRefused) {
  create()->set(VrfEntry(VrfId(7), "red"));
  const std::string file = "/dev/shm" + name;
  for (const mode_t mode : {0664U, 0646U, 0620U, 0602U, 0666U, 0777U}) {
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    EXPECT_EQ(openError(), EACCES) << std::oct << mode;
    EXPECT_EQ(createError(), EACCES) << std::oct << mode;
  }
  for (const mode_t mode : {0644U, 0640U, 0600U, 0755U}) {
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    EXPECT_EQ(openError(), 0) << std::oct << mode;
    EXPECT_EQ(createError(), 0) << std::oct << mode;
  }
  EXPECT_EQ(open()->vrfEntry(VrfId(7)).name(), "red");
}

TEST_F(VrfWriters, ALockFileThatOthersMayOpenIsRefused) {
  (void)create();
  ASSERT_EQ(lockFiles().size(), 1U);
  ASSERT_EQ(chmod(lockFiles()[0].c_str(), 0644), 0);
  EXPECT_EQ(createError(), EACCES) << "a reader's lock on it would keep every writer out";
}

TEST_F(VrfWriters, APipeInThePlaceOfATableIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(("/dev/shm" + name).c_str(), 0600), 0);
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  EXPECT_EQ(createError(), EEXIST);
}

// --- One writer ------------------------------------------------------------------------------------------------------

TEST_F(VrfWriters, ASecondProcessIsRefusedUntilTheFirstEnds) {
  LastingChild first([this] { (void)new VrfWriter(create()); });
  EXPECT_EQ(createError(), static_cast<int>(std::errc::device_or_resource_busy));
  EXPECT_EQ(messageOf([this] { (void)create(); }),
            "VRF status table " + name + ": has another writer: Device or resource busy");
  EXPECT_EQ(openError(), 0);
  first.end();
  create()->set(VrfEntry(VrfId(7), "red"));
  EXPECT_EQ(open()->vrfEntry(VrfId(7)).name(), "red");
}

TEST_F(VrfWriters, ReadingInTheWritersProcessKeepsTheLock) {
  const VrfWriter writer = create();
  for (int count = 0; count < 3; ++count) {
    (void)open();
    (void)close(openFile(O_RDONLY));
    (void)close(openFile(O_RDWR));
  }
  (void)createError();
  EXPECT_EQ(createErrorInChild(), EBUSY);
}

TEST_F(VrfWriters, TheSameProcessMayCreateAgain) {
  VrfWriter first = create();
  first->set(VrfEntry(VrfId(7), "red"));
  VrfWriter second = create();
  second->set(VrfEntry(VrfId(8), "blue"));
  EXPECT_EQ(first->vrfEntry(VrfId(8)).name(), "blue");
  EXPECT_EQ(second->vrfEntry(VrfId(7)).name(), "red");
  first.reset();
  second->set(VrfEntry(VrfId(7), "green"));
  EXPECT_EQ(open()->vrfEntry(VrfId(7)).name(), "green");
  EXPECT_EQ(createErrorInChild(), EBUSY) << "one of the two is left";
  second.reset();
  EXPECT_EQ(createErrorInChild(), 0);
}

TEST_F(VrfWriters, AChildMadeByForkReadsButDoesNotWrite) {
  const VrfWriter writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  EXPECT_EQ(inChild([&] { return errorOf([&] { writer->set(VrfEntry(VrfId(7), "child")); }); }), EBUSY);
  EXPECT_EQ(inChild([&] { return errorOf([&] { writer->erase(VrfId(7)); }); }), EBUSY);
  EXPECT_EQ(inChild([&] { return writer->vrfEntry(VrfId(7)).name() == "red" ? 0 : 1; }), 0);
  EXPECT_EQ(writer->vrfEntry(VrfId(7)).name(), "red");
  EXPECT_EQ(createErrorInChild(), EBUSY);
  writer->set(VrfEntry(VrfId(7), "still the writer"));
}

TEST_F(VrfWriters, AChildMadeByForkDoesNotKeepTheLock) {
  VrfWriter writer = create();
  const LastingChild child([] {});
  writer.reset();
  EXPECT_EQ(createErrorInChild(), 0);
}

TEST_F(VrfWriters, AChildMadeByForkMayWriteAfterItsParentGaveUp) {
  VrfWriter writer = create();
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  const pid_t child = fork();
  if (child == 0) {
    char go;
    (void)close(gate[1]);
    (void)!read(gate[0], &go, 1);
    _exit(errorOf([&] {
      const VrfWriter own = create();
      own->set(VrfEntry(VrfId(7), "child"));
      writer.reset();
      own->set(VrfEntry(VrfId(8), "child"));
    }));
  }
  writer.reset();
  (void)close(gate[0]);
  (void)close(gate[1]);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(open()->vrfEntry(VrfId(8)).name(), "child");
}

// Every lock there is, taken on a descriptor that only reads.
TEST_F(VrfWriters, AReaderCannotKeepAWriterOut) {
  (void)create();
  const int file = openFile(O_RDONLY);
  struct flock whole = {};
  whole.l_type = F_RDLCK;
  ASSERT_EQ(fcntl(file, F_OFD_SETLK, &whole), 0);
  ASSERT_EQ(flock(file, LOCK_EX), 0);
  EXPECT_EQ(createError(), 0);
  EXPECT_EQ(createErrorInChild(), 0);
  (void)close(file);
  for (const fs::path& lock : lockFiles()) {
    EXPECT_EQ(fs::status(lock).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  }
}

TEST_F(VrfStrangers, CannotOpenTheLockFile) {
  const VrfWriter writer = create();
  ASSERT_EQ(lockFiles().size(), 1U);
  const std::string lock = lockFiles()[0].string();
  EXPECT_EQ(asStranger([&lock] { return ::open(lock.c_str(), O_RDONLY) < 0 ? errno : 0; }), EACCES);
}

TEST_F(VrfWriters, ARemovedTableHasNoSayInTheNextOne) {
  const VrfWriter old = create();
  VrfIdMap::Status::remove(name.c_str());
  EXPECT_EQ(lockFiles().size(), 0U);
  const LastingChild next([this] { (*new VrfWriter(create()))->set(VrfEntry(VrfId(7), "next")); });
  old->set(VrfEntry(VrfId(7), "old"));
  EXPECT_EQ(open()->vrfEntry(VrfId(7)).name(), "next");
  EXPECT_EQ(createError(), EBUSY);
  EXPECT_EQ(lockFiles().size(), 1U);
}

// The lock's descriptor is the only one that a writer keeps.
TEST_F(VrfWriters, KeepsADescriptorThatHarmsNobody) {
  const int answer = inChild([this] {
    (void)close(STDIN_FILENO);
    (void)close(STDERR_FILENO);
    const VrfWriter writer = create();
    int kept = 0;
    for (int number = 0; number < 1024; ++number) {
      const std::string link = "/proc/self/fd/" + std::to_string(number);
      char target[256] = {};
      if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 && std::strstr(target, name.c_str()) != nullptr) {
        kept += number > STDERR_FILENO && fcntl(number, F_GETFD) == FD_CLOEXEC ? 1 : 100;
      }
    }
    return kept;
  });
  EXPECT_EQ(answer, 1);
}

TEST_F(VrfWriters, ATableOfTheOlderLayoutIsRefusedAndLeftAlone) {
  const off_t size = 128 + 1024 * 128;
  resize(size);
  const int file = openFile(O_RDWR);
  ASSERT_EQ(pwrite(file, "\0VRFTAB1", 8, 0), 8);
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  EXPECT_EQ(createError(), EEXIST);
  EXPECT_EQ(lseek(file, 0, SEEK_END), size);
  char magic[8];
  ASSERT_EQ(pread(file, magic, sizeof(magic), 0), 8);
  EXPECT_EQ(std::string(magic, 8), std::string("\0VRFTAB1", 8));
  (void)close(file);
}

}  // namespace
}  // namespace Ipsec::Testing
