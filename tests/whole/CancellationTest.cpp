// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A thread is cancelled while it is in one of the library's or the platform's functions. The process must live on, the
// call must have done its work or have left as an exception leaves it, and no descriptor may stay open.
#include "Ipsec.h"
#include "IpsecDaemon.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Trace.h"
#include "platform/testing/VrfTable.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Ipsec::Testing {
namespace {

namespace fs = std::filesystem;

struct Call {
  const char* name;
  void (*make)();
};

const Cor::TraceHandle tracer("CancellationTest");

void exchange(DhGroupNum group) {
  IpsecDHGeneral dh(group);
  ByteVector out;
  const ByteVector two = {2};
  if (!dh.initIpsecDH() || !dh.getMyPublicKey(&out) || !dh.setPeerPublicKey(&out) || !dh.getSharedSecret(&out) ||
      !dh.setMyPrivateKey(&two) || !dh.getMyPrivateKey(&out)) {
    std::abort();
  }
}

const Call calls[] = {
    {"writeConnections",
     [] {
       writeConnections({{"config", "a"}, {"reqid", "7"}, {"left", "l"}, {"right", "r"}});
     }},
    {"writeSecrets",
     [] {
       writeSecrets({{"peerIp", "10.0.0.1"}, {"key", "k"}});
     }},
    {"applyConnections",
     [] {
       (void)applyConnections(
           {{{"config", "a"}, {"ikeVersion", "ikev2"}, {"reqid", "7"}, {"left", "10.0.0.1"}, {"right", "10.0.0.2"}}});
     }},
    {"applySecrets",
     [] {
       (void)applySecrets({{{"peerIp", "10.0.0.1"}, {"key", "k"}}});
     }},
    {"listConnections",
     [] {
       std::vector<Vello::String> names;
       (void)listConnections(&names);
     }},
    {"setMaxReplayWindow", [] { setMaxReplayWindow(); }},
    {"isSswanRunning", [] { (void)isSswanRunning(); }},
    {"enableCryptoModules", [] { enableCryptoModules(); }},
    {"exchangeModp", [] { exchange(MODP_1536); }},
    {"exchangeEcp", [] { exchange(ECP_256); }},
    {"initKeyGenLib", [] { (void)initKeyGenLib(); }},
    {"generateNonce",
     [] {
       ByteVector nonce;
       (void)NonceGenerator().generateNonce(&nonce);
     }},
    {"trace", [] { tracer.write(0, Cor::TraceSite::here(), "a line"); }},
    {"dualTrace", [] { DualTrace::write(tracer, 0, Cor::TraceSite::here(), "a line"); }},
    {"log",
     [] {
       (void)Cor::LogHandle({"KEY", "text", "", "", 4}, Vello::Duration(0), 1.0, 0U, 0U).emit();
     }},
    {"run",
     [] {
       const char* argv[] = {"/bin/true", nullptr};
       (void)Cor::run(argv, 0, 1, 2, -1);
     }},
    {"vrfStatus",
     [] {
       using Vrf::VrfIdMap;
       const Vrf::TestTable table("/cancellation-test-" + std::to_string(getpid()));
       table.set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(1), "one"));
       (void)table.open()->vrfEntry(VrfIdMap::VrfId(2));
     }},
};

std::ptrdiff_t openDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// Makes the call in a thread whose cancellation is already pending: the first cancellation point of the call, if it
// offers one, is where the thread ends.
void* cancelledThread(void* call) {
  (void)pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  (void)pthread_cancel(pthread_self());
  static_cast<const Call*>(call)->make();
  pthread_testcancel();
  return nullptr;
}

// The parent of a cancelled process sees an abort; this is what the child answers otherwise.
int afterACancellation(const Call& call) {
  const std::ptrdiff_t before = openDescriptors();
  pthread_t thread = {};
  void* result = nullptr;
  if (pthread_create(&thread, nullptr, cancelledThread, const_cast<Call*>(&call)) != 0 ||
      pthread_join(thread, &result) != 0) {
    return 2;
  }
  if (result != PTHREAD_CANCELED) {
    return 3;
  }
  if (openDescriptors() > before) {
    return 4;
  }
  call.make();  // whatever the cancelled call may have left behind, a lock say, must not stop the next
  return 0;
}

class Cancellation : public testing::TestWithParam<Call> {};

TEST_P(Cancellation, EndsTheThreadAndNothingElse) {
  resetHost();
  fs::create_directories(fs::path(pidFile).parent_path());
  writeFile(connectionsFile, "conn other\n");
  writeFile(secretsFile, "other : PSK x\n");
  writeFile(replayWindowSetting, "0\n");
  writeFile(pidFile, "1\n");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    (void)alarm(30);
    std::_Exit(afterACancellation(GetParam()));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "signal " << WTERMSIG(status) << ", exit status " << WEXITSTATUS(status);
  EXPECT_EQ(readFile(connectionsFile).rfind("conn other\n", 0), 0U);
  EXPECT_EQ(readFile(secretsFile).rfind("other : PSK x\n", 0), 0U);
}

INSTANTIATE_TEST_SUITE_P(Of, Cancellation, testing::ValuesIn(calls), [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}
