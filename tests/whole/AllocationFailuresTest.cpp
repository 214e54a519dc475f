// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Memory runs out: inside OpenSSL, at every allocation of a whole exchange and of a derivation, and at every operator
// new. Nothing crashes, nothing leaks, and every result that claims success is right.
//
// OpenSSL's allocator can be replaced only before its first use, so this program has its own main.

#include "base/OpenSslPtr.h"
#include "platform/testing/TraceCapture.h"
#include "tests/support/CryptoCases.h"
#include "tests/support/OperatorNew.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <thread>
#include <vector>

namespace {

// Allocations of one kind, counted while armed. The requested one fails, or all from it on.
struct Allocator {
  std::atomic<long> live = 0;
  std::atomic<unsigned long> count = 0;
  std::atomic<unsigned long> failFrom = 0;  // 0: none
  std::atomic<unsigned long> failTo = 0;

  bool refuses() {
    const unsigned long from = failFrom.load(std::memory_order_relaxed);
    if (from == 0) {
      return false;
    }
    const unsigned long n = ++count;
    return n >= from && n <= failTo.load(std::memory_order_relaxed);
  }

  void arm(unsigned long from, unsigned long to) {
    count = 0;
    failTo = to;
    failFrom = from;
  }

  // Returns whether an allocation failed.
  bool disarm() {
    const unsigned long from = failFrom.exchange(0);
    return count >= from;
  }

  void* take(std::size_t size) {
    void* const memory = refuses() ? nullptr : std::malloc(size == 0 ? 1 : size);
    live += memory != nullptr;
    return memory;
  }

  void give(void* memory) {
    live -= memory != nullptr;
    std::free(memory);
  }
};

Allocator openSsl;
Allocator operatorNew;

void* openSslMalloc(std::size_t size, const char*, int) {
  return openSsl.take(size);
}

void* openSslRealloc(void* memory, std::size_t size, const char* file, int line) {
  if (memory == nullptr) {
    return openSslMalloc(size, file, line);
  }
  return openSsl.refuses() ? nullptr : std::realloc(memory, size);
}

void openSslFree(void* memory, const char*, int) {
  openSsl.give(memory);
}

}  // namespace

void* Ipsec::Testing::takeMemory(std::size_t size) noexcept {
  return operatorNew.take(size);
}

void Ipsec::Testing::giveMemory(void* memory) noexcept {
  operatorNew.give(memory);
}

namespace Ipsec::Testing {
namespace {

// --- The work --------------------------------------------------------------------------------------------------------

// The results of an attempt at the work. Outputs of calls that succeeded are kept, and checked when there is memory
// again.
struct Attempt {
  bool importedRight = true;  // everything that claimed success about the known key was right
  bool finished = false;      // every call succeeded
  ByteVector generatedPublic;
  ByteVector generatedSecret;  // with the known public value
};

struct Known {
  DhGroupNum group;
  ByteVector privateKey;
  ByteVector publicKey;
  ByteVector selfSecret;  // with itself as the peer
};

ByteVector streamKey;
ByteVector streamSeed;
ByteVector knownStream;

ByteVector knownPrivateKey() {
  return ByteVector(24, 0x35);
}

Known make(DhGroupNum group) {
  Known known{group, knownPrivateKey(), {}, {}};
  IpsecDHGeneral dh(group);
  EXPECT_TRUE(dh.initIpsecDH());
  EXPECT_TRUE(dh.setMyPrivateKey(&known.privateKey));
  EXPECT_TRUE(dh.getMyPublicKey(&known.publicKey));
  EXPECT_TRUE(dh.setPeerPublicKey(&known.publicKey));
  EXPECT_TRUE(dh.getSharedSecret(&known.selfSecret));
  return known;
}

// A generated key against the known one, then the known one against itself.
void exchange(const Known& known, Attempt& attempt) {
  IpsecDHGeneral dh(known.group);
  ByteVector out;
  bool all = dh.initIpsecDH();
  if (dh.getMyPublicKey(&out)) {
    attempt.generatedPublic = out;
    if (dh.setPeerPublicKey(&known.publicKey) && dh.getSharedSecret(&out)) {
      attempt.generatedSecret = out;
    } else {
      all = false;
    }
  } else {
    all = false;
  }
  all = dh.getMyPrivateKey(&out) && all;
  if (!dh.setMyPrivateKey(&known.privateKey)) {
    return;
  }
  bool right = true;
  const bool read = dh.getMyPublicKey(&out);
  right = right && (!read || out == known.publicKey);
  const bool exported = dh.getMyPrivateKey(&out);
  right = right && (!exported || out == known.privateKey);
  const bool agreed = dh.setPeerPublicKey(&known.publicKey);
  const bool answered = dh.getSharedSecret(&out);
  right = right && (!agreed || !answered || out == known.selfSecret);
  attempt.importedRight = right;
  attempt.finished = all && read && exported && agreed && answered;
}

void derivation(Attempt& attempt) {
  HmacPRFunc prf;
  PRFuncPlus plus(&prf, true);
  ByteVector out;
  if (!prf.initHmacPRFunc(HASH_SHA256) || !prf.setKey(&streamKey) || !plus.initPRFuncPlus(&streamSeed) ||
      !plus.generatePRStream(200, &out)) {
    return;
  }
  attempt.importedRight = out == knownStream;
  attempt.finished = true;
}

// Checks, when there is memory again, what an attempt with a generated key claimed.
bool isRight(const Known& known, const Attempt& attempt) {
  if (!attempt.importedRight || attempt.generatedSecret.empty()) {
    return attempt.importedRight;
  }
  IpsecDHGeneral dh(known.group);
  ByteVector out;
  return dh.initIpsecDH() && dh.setMyPrivateKey(&known.privateKey) && dh.setPeerPublicKey(&attempt.generatedPublic) &&
         dh.getSharedSecret(&out) && out == attempt.generatedSecret;
}

class AllocationFailures : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Cor::setTraceLevels("IpsecKeyGen=31"));  // thousands of failures: no text lines
    streamKey.assign(32, 0x4B);
    streamSeed.assign(40, 0x53);
    HmacPRFunc prf;
    PRFuncPlus plus(&prf, true);
    ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256) && prf.setKey(&streamKey) && plus.initPRFuncPlus(&streamSeed) &&
                plus.generatePRStream(200, &knownStream));
  }
};

// --- Inside OpenSSL --------------------------------------------------------------------------------------------------

// Runs the work in a separate thread, so that OpenSSL's state of the thread is created and freed with it.
void inThread(const std::function<void()>& work) {
  std::thread(work).join();
}

struct Sweep {
  unsigned long allocations = 0;  // of the work when nothing fails
  unsigned long failedAttempts = 0;
};

// Fails only the nth allocation, then all from the nth on, for every n that the work has.
Sweep sweepOpenSsl(const std::function<void(Attempt&)>& work, const std::function<bool(const Attempt&)>& right) {
  Sweep sweep;
  for (int i = 0; i < 3; ++i) {  // what OpenSSL keeps permanently is created now
    Attempt attempt;
    inThread([&] { work(attempt); });
    EXPECT_TRUE(attempt.finished && right(attempt));
  }
  for (const bool onwards : {false, true}) {
    for (unsigned long n = 1;; ++n) {
      Attempt attempt;
      bool failed = false;
      const long before = openSsl.live;
      inThread([&] {
        openSsl.arm(n, onwards ? ULONG_MAX : n);
        work(attempt);
        failed = openSsl.disarm();
      });
      EXPECT_EQ(openSsl.live, before) << "leak, allocation " << n << (onwards ? " and all later" : "");
      EXPECT_TRUE(right(attempt)) << "wrong answer, allocation " << n << (onwards ? " and all later" : "");
      sweep.failedAttempts += !attempt.finished;
      if (!failed) {
        EXPECT_TRUE(attempt.finished);
        sweep.allocations = n - 1;
        break;
      }
      if (testing::Test::HasFailure() && n > 4000) {
        break;
      }
    }
  }
  std::cout << "allocations: " << sweep.allocations << ", attempts that failed: " << sweep.failedAttempts << '\n';
  EXPECT_GT(sweep.allocations, 2U);  // a derivation makes 19 with OpenSSL 3.0 and 6 with 3.5
  EXPECT_GT(sweep.failedAttempts, sweep.allocations);
  return sweep;
}

class AllocationFailuresOfGroup : public AllocationFailures, public testing::WithParamInterface<DhGroupNum> {};

TEST_P(AllocationFailuresOfGroup, InsideOpenSsl) {
  const Known known = make(GetParam());
  sweepOpenSsl([&known](Attempt& attempt) { exchange(known, attempt); },
               [&known](const Attempt& attempt) { return isRight(known, attempt); });
}

TEST_F(AllocationFailures, InsideOpenSslDuringADerivation) {
  sweepOpenSsl([](Attempt& attempt) { derivation(attempt); },
               [](const Attempt& attempt) { return attempt.importedRight; });
}

// --- First use, in processes of their own ----------------------------------------------------------------------------

// The argument of a process that does one piece of work with a failure, followed by what attemptFromTheStart reads.
const char* const coldOption = "--attempt-from-the-start";

// Exit codes of such a process.
constexpr int falseSuccess = 3;
constexpr int openSslsOwnFault = 4;
constexpr int crash = 5;

// If its default library context could not be created, OpenSSL 3.0 crashes at the next look-up of any algorithm. A
// crash is OpenSSL's own if the simplest look-up crashes in the same state too. Any other crash is the library's.
void judgeCrash(int) {
  const pid_t child = fork();
  if (child == 0) {
    (void)std::signal(SIGSEGV, SIG_DFL);
    (void)alarm(10);  // in case the crash left a lock behind
    (void)Base::DigestPtr(EVP_MD_fetch(nullptr, "SHA2-256", nullptr));
    std::_Exit(0);
  }
  int status = 0;
  const bool waited = child > 0 && waitpid(child, &status, 0) == child;
  std::_Exit(waited && WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV ? openSslsOwnFault : crash);
}

// How such a process begins: with OpenSSL set up, or with nothing done before.
const char* const setUpBefore = "set-up";
const char* const nothingBefore = "bare";

// Set by pthread_once below, in a process that checks results.
bool judgesOnce = false;

// Does the work in this fresh process. Known answers come from the parent: nothing may be computed before.
// Arguments: how it begins, the group (0: the derivation), the first and the last allocation to fail, the known public
// value, the known secret or stream.
int attemptFromTheStart(char** arguments) {
  const bool setUp = std::strcmp(arguments[0], setUpBefore) == 0;
  const auto group = static_cast<DhGroupNum>(std::strtoul(arguments[1], nullptr, 10));
  const unsigned long from = std::strtoul(arguments[2], nullptr, 10);
  const unsigned long to = std::strtoul(arguments[3], nullptr, 10);
  const Known known{group, knownPrivateKey(), fromHex(arguments[4]), fromHex(arguments[5])};
  streamKey.assign(32, 0x4B);
  streamSeed.assign(40, 0x53);
  knownStream = known.selfSecret;
  if (!Cor::setTraceLevels("IpsecKeyGen=31")) {
    return crash;
  }
  (void)alarm(60);  // nothing else ends a process that waits for itself
  if (setUp) {
    (void)Base::DigestPtr(EVP_MD_fetch(nullptr, "SHA2-256", nullptr));
  } else {
    (void)std::signal(SIGSEGV, judgeCrash);
    judgesOnce = true;
  }
  Attempt attempt;
  openSsl.arm(from, to);
  if (group == MODP_NONE) {
    derivation(attempt);
  } else {
    exchange(known, attempt);
  }
  const bool failed = openSsl.disarm();
  if (!attempt.importedRight || (!failed && !attempt.finished)) {
    return falseSuccess;
  }
  // When there is memory again, a generated key can be checked, unless OpenSSL's own set-up failed, which is permanent.
  IpsecDHGeneral judge(known.group);
  if (!attempt.generatedSecret.empty() && judge.initIpsecDH() && !isRight(known, attempt)) {
    return falseSuccess;
  }
  if (!failed) {
    std::cout << openSsl.count << std::endl;
  }
  return 0;
}

std::string hexOf(const ByteVector& bytes) {
  std::string text;
  for (const unsigned char byte : bytes) {
    constexpr const char* digits = "0123456789abcdef";
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

// Returns the exit code of such a process, or the negative signal that ended it.
int run(const Known& known, const char* begin, unsigned long from, unsigned long to) {
  std::vector<std::string> texts = {"/proc/self/exe",
                                    coldOption,
                                    begin,
                                    std::to_string(known.group),
                                    std::to_string(from),
                                    std::to_string(to),
                                    hexOf(known.publicKey),
                                    hexOf(known.selfSecret)};
  std::vector<char*> arguments;
  for (std::string& text : texts) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t quiet;
  EXPECT_EQ(posix_spawn_file_actions_init(&quiet), 0);
  EXPECT_EQ(posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0), 0);
  pid_t child = 0;
  EXPECT_EQ(posix_spawn(&child, arguments[0], &quiet, nullptr, arguments.data(), environ), 0);
  (void)posix_spawn_file_actions_destroy(&quiet);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// The early allocations fail one by one, later ones at growing distances, because a first use has thousands.
std::vector<unsigned long> sampled(unsigned long last) {
  std::vector<unsigned long> numbers;
  for (unsigned long n = 1; n <= last; n += 1 + n / 10) {
    numbers.push_back(n);
  }
  return numbers;
}

void expectNoCrashAtFirstUse(const Known& known) {
  ASSERT_EQ(run(known, setUpBefore, ULONG_MAX, ULONG_MAX), 0);
  ASSERT_EQ(run(known, nothingBefore, ULONG_MAX, ULONG_MAX), 0);
  unsigned ownFaults = 0;
  for (const unsigned long n : sampled(6000)) {
    for (const unsigned long last : {n, ULONG_MAX}) {
      EXPECT_EQ(run(known, setUpBefore, n, last), 0) << "OpenSSL set up, allocations " << n << " to " << last;
      if (n > 1000 && last != n) {
        continue;
      }
      const int bare = run(known, nothingBefore, n, last);
      ownFaults += bare == openSslsOwnFault;
      EXPECT_TRUE(bare == 0 || bare == openSslsOwnFault) << "allocations " << n << " to " << last << ": " << bare;
    }
  }
  std::cout << "crashes of OpenSSL's own set-up and waits of it for itself: " << ownFaults << '\n';
}

TEST_P(AllocationFailuresOfGroup, InsideOpenSslAtFirstUse) {
  expectNoCrashAtFirstUse(make(GetParam()));
}

TEST_F(AllocationFailures, InsideOpenSslAtFirstUseOfADerivation) {
  expectNoCrashAtFirstUse({MODP_NONE, {}, {}, knownStream});
}

// --- operator new ----------------------------------------------------------------------------------------------------

// Fails each operator new of the work in turn. Only std::bad_alloc may leave a call, or the call returns a failure.
void sweepOperatorNew(const std::function<void(Attempt&)>& work, const std::function<bool(const Attempt&)>& right) {
  for (int i = 0; i < 600; ++i) {  // fill the ring of the last lines
    IpsecDHGeneral dh(MODP_NONE);
    EXPECT_FALSE(dh.initIpsecDH());
  }
  Attempt first;
  work(first);
  EXPECT_TRUE(first.finished && right(first));
  unsigned long thrown = 0;
  unsigned long n = 1;
  for (bool failed = true; failed; ++n) {
    Attempt attempt;
    const long before = operatorNew.live;
    const long beforeOpenSsl = openSsl.live;
    {
      Attempt inner;
      operatorNew.arm(n, n);
      bool threw = false;
      try {
        work(inner);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      failed = operatorNew.disarm();
      thrown += threw;
      EXPECT_TRUE(threw || !failed || right(inner)) << "allocation " << n;
      EXPECT_TRUE(failed || inner.finished);
    }
    EXPECT_EQ(operatorNew.live, before) << "leak, operator new " << n;
    EXPECT_LE(openSsl.live, beforeOpenSsl) << "leak in OpenSSL, operator new " << n;
  }
  std::cout << "calls of operator new: " << n - 2 << ", thrown: " << thrown << '\n';
  EXPECT_GE(thrown, 3U);
}

TEST_P(AllocationFailuresOfGroup, OfOperatorNew) {
  const Known known = make(GetParam());
  sweepOperatorNew([&known](Attempt& attempt) { exchange(known, attempt); },
                   [&known](const Attempt& attempt) { return isRight(known, attempt); });
}

TEST_F(AllocationFailures, OfOperatorNewDuringADerivation) {
  sweepOperatorNew([](Attempt& attempt) { derivation(attempt); },
                   [](const Attempt& attempt) { return attempt.importedRight; });
}

// Repeats a step until it throws no more, and returns its answer.
template <class Step>
bool retried(const Step& step) {
  for (;;) {
    try {
      return step();
    } catch (const std::bad_alloc&) {  // one allocation fails in all
    }
  }
}

// The outputs of some steps. They are made before memory runs out.
using Outputs = std::array<ByteVector, 3>;

// Runs the steps, which end at the first that returns false, with each allocation failing in turn and a retry after it.
// What they write must be what they write undisturbed. So many runs may end early.
void sweepRetries(unsigned mayEndEarly, const std::function<bool(Outputs&)>& steps) {
  Outputs right;
  EXPECT_TRUE(steps(right));
  unsigned endedEarly = 0;
  unsigned long n = 1;
  for (bool failed = true; failed; ++n) {
    Outputs outputs;
    operatorNew.arm(n, n);
    const bool whole = steps(outputs);
    failed = operatorNew.disarm();
    endedEarly += whole ? 0 : 1;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      EXPECT_TRUE(outputs[i] == right[i] || (!whole && outputs[i].empty())) << "output " << i << ", allocation " << n;
    }
  }
  EXPECT_EQ(endedEarly, mayEndEarly);
  EXPECT_GE(n, 4U);
}

// The state of an HMAC is asked for without an exception: without it, no key can be set.
constexpr unsigned withoutAState = 1;

TEST_F(AllocationFailures, ARetriedHmacAnswersRight) {
  const ByteVector head = {'H', 'i', ' '};
  const ByteVector rest = {'T', 'h', 'e', 'r', 'e'};
  sweepRetries(withoutAState, [&](Outputs& out) {
    HmacPRFunc prf;
    return retried([&] { return prf.initHmacPRFunc(HASH_SHA256); }) &&
           retried([&] { return prf.setKey(&streamKey); }) &&
           retried([&] { return prf.generatePRStream(&head, nullptr); }) &&
           retried([&] { return prf.generatePRStream(&rest, out.data()); }) &&
           retried([&] { return prf.generatePRStream(&rest, &out[1]); });
  });
}

class StreamRetries : public AllocationFailures, public testing::WithParamInterface<bool> {};

TEST_P(StreamRetries, AnswerRight) {
  sweepRetries(withoutAState, [](Outputs& out) {
    HmacPRFunc prf;
    PRFuncPlus plus(&prf, GetParam());
    return retried([&] { return prf.initHmacPRFunc(HASH_SHA256) && prf.setKey(&streamKey); }) &&
           retried([&] { return plus.initPRFuncPlus(&streamSeed); }) &&
           retried([&] { return plus.generatePRStream(10, out.data()); }) &&
           retried([&] { return plus.generatePRStream(100, &out[1]); }) &&
           retried([&] { return plus.generatePRStream(300, &out[2]); });
  });
}

INSTANTIATE_TEST_SUITE_P(Modes, StreamRetries, testing::Bool());

// A PRF whose outputs are longer than a digest: the vector for one may not be had after the input was absorbed.
class LongOutputs : public HmacPRFunc {
 public:
  std::size_t getOutputSize() override { return 1000; }
};

TEST_F(AllocationFailures, AnOutputThatCannotBeMadeEndsTheComputation) {
  const ByteVector input(5, 1);
  LongOutputs prf;
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA256) && prf.setKey(&streamKey));
  ByteVector right;
  ASSERT_TRUE(prf.generatePRStream(&input, &right));
  ByteVector out(EVP_MAX_MD_SIZE);  // no more is needed before the input is absorbed
  operatorNew.arm(1, 1);
  EXPECT_THROW((void)prf.generatePRStream(&input, &out), std::bad_alloc);
  operatorNew.disarm();
  EXPECT_EQ(out.size(), std::size_t{EVP_MAX_MD_SIZE});
  EXPECT_FALSE(prf.generatePRStream(&input, &out)) << "the input was absorbed once already";
  EXPECT_TRUE(prf.setKey(nullptr));
  EXPECT_TRUE(prf.generatePRStream(&input, &out));
  EXPECT_EQ(out, right);
}

TEST_P(AllocationFailuresOfGroup, ARetriedExchangeAnswersRight) {
  const Known known = make(GetParam());
  sweepRetries(0, [&known](Outputs& out) {
    IpsecDHGeneral dh(known.group);
    return retried([&] { return dh.initIpsecDH(); }) &&  //
           retried([&] { return dh.setMyPrivateKey(&known.privateKey); }) &&
           retried([&] { return dh.getMyPublicKey(out.data()); }) &&
           retried([&] { return dh.getMyPrivateKey(&out[1]); }) &&
           retried([&] { return dh.setPeerPublicKey(&known.publicKey); }) &&
           retried([&] { return dh.getSharedSecret(&out[2]); });
  });
}

TEST_F(AllocationFailures, OfOperatorNewForNonces) {
  sweepOperatorNew(
      [](Attempt& attempt) {
        NonceGenerator generator(100);
        ByteVector first;
        ByteVector second;
        ByteVector both;
        attempt.finished = generator.generateNonce(&first) && generator.generateNonce(&second) &&
                           generator.generateFullNonce(&both, &first, &second);
      },
      [](const Attempt&) { return true; });
}

INSTANTIATE_TEST_SUITE_P(Groups, AllocationFailuresOfGroup,
                         testing::Values(MODP_1024, MODP_2048, MODP_2048_256, ECP_256, ECP_384, ECP_521));

}  // namespace
}  // namespace Ipsec::Testing

#ifndef __SANITIZE_THREAD__
// OpenSSL 3.5 waits for ever when an allocation of its set-up fails: to report the failure, it starts the same set-up
// again while it is still in it. Such a call would never return. It is OpenSSL's fault if the set-up is one of
// OpenSSL's.
extern "C" int pthread_once(pthread_once_t* control, void (*routine)()) {
  static const auto real = reinterpret_cast<decltype(&pthread_once)>(dlsym(RTLD_NEXT, "pthread_once"));
  static thread_local std::vector<const pthread_once_t*> running;
  if (!Ipsec::Testing::judgesOnce) {
    return real(control, routine);
  }
  if (std::find(running.begin(), running.end(), control) != running.end()) {
    Dl_info owner = {};
    const bool openSsls = dladdr(control, &owner) != 0 && std::strstr(owner.dli_fname, "libcrypto") != nullptr;
    std::_Exit(openSsls ? Ipsec::Testing::openSslsOwnFault : Ipsec::Testing::crash);
  }
  running.push_back(control);
  const int result = real(control, routine);
  running.pop_back();
  return result;
}
#endif

int main(int argc, char** argv) {
  if (CRYPTO_set_mem_functions(openSslMalloc, openSslRealloc, openSslFree) != 1) {
    std::cerr << "OpenSSL was used before main\n";
    return 1;
  }
  if (argc == 8 && std::strcmp(argv[1], Ipsec::Testing::coldOption) == 0) {
    // The sanitizers must not look for leaks here: OpenSSL 3.0 itself loses a name when its table of names cannot grow.
    std::_Exit(Ipsec::Testing::attemptFromTheStart(argv + 2));
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
