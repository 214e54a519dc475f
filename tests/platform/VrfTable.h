// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A VRF status table of the test's own, and processes beside the test that work with it.
#pragma once

#include "platform/Vrf.h"
#include "platform/linux/VrfSegment.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <system_error>

namespace Ipsec::Testing {

using Vrf::VrfIdMap;
using VrfId = VrfIdMap::VrfId;
using VrfEntry = VrfIdMap::VrfEntry;
using VrfWriter = Vello::Ptr<VrfIdMap::Status>;
using VrfReader = Vello::Ptr<const VrfIdMap::Status>;

class VrfTable : public testing::Test {
 protected:
  VrfTable() { VrfIdMap::Status::remove(name.c_str()); }
  ~VrfTable() override { VrfIdMap::Status::remove(name.c_str()); }

  VrfWriter create() const { return VrfIdMap::Status::create(name.c_str()); }
  VrfReader open() const { return VrfIdMap::Status::open(name.c_str()); }

  // Opens the segment as a third party.
  int openFile(int flags) const {
    const int file = shm_open(name.c_str(), flags, 0600);
    EXPECT_GE(file, 0);
    return file;
  }

  // Maps the segment as a third party that may do anything with it.
  Vrf::MappedSegment segment() const {
    const int file = openFile(O_RDWR);
    void* const memory = mmap(nullptr, sizeof(Vrf::Segment), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    EXPECT_NE(memory, MAP_FAILED);
    (void)close(file);
    return Vrf::MappedSegment(static_cast<Vrf::Segment*>(memory));
  }

  void resize(off_t size) const {
    const int file = openFile(O_RDWR | O_CREAT);
    EXPECT_EQ(ftruncate(file, size), 0);
    (void)close(file);
  }

  const std::string name = "/platform-test-" + std::to_string(getpid());
};

// Returns the errno value of the std::system_error that the call throws, 0 if it throws nothing, and -1 for any other
// exception.
inline int errorOf(const std::function<void()>& call) {
  try {
    call();
    return 0;
  } catch (const std::system_error& error) {
    return error.code().value();
  } catch (const std::exception&) {
    return -1;
  }
}

// A child that makes calls and then lives on until it is killed.
class LastingChild {
 public:
  // Returns once the child has made the calls. They may not throw.
  explicit LastingChild(const std::function<void()>& calls) : process(fork()) {
    if (process == 0) {
      calls();
      (void)raise(SIGSTOP);
      _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, WUNTRACED), process);
    EXPECT_TRUE(WIFSTOPPED(status)) << status;
  }
  ~LastingChild() { end(); }
  LastingChild(const LastingChild&) = delete;
  LastingChild& operator=(const LastingChild&) = delete;

  void end() {
    if (process > 0) {
      (void)kill(process, SIGKILL);
      EXPECT_EQ(waitpid(process, nullptr, 0), process);
      process = -1;
    }
  }

 private:
  pid_t process;
};

// Makes a call in a child and returns what it returns there, a number from 0 to 255.
inline int inChild(const std::function<int()>& call) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(call());
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << status;
  return WEXITSTATUS(status);
}

}  // namespace Ipsec::Testing
