// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Table.h"

#include <cstdio>
#include <string>

namespace Exchange {
namespace {

// The first bytes of a published figure, which are enough to find it in the RFC.
std::string beginning(const ByteVector& bytes) {
  constexpr std::size_t shown = 5;
  std::string text;
  for (std::size_t index = 0; index < shown && index < bytes.size(); ++index) {
    char digits[3];
    (void)std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(bytes[index]));
    text += digits;
  }
  return text + "..";
}

// Flushes, so that a row appears at once even if standard output is a pipe.
void endRow() {
  std::putchar('\n');
  (void)std::fflush(stdout);
}

}  // namespace

void printPublishedHead() {
  std::puts(
      "=== Are the results right? ===\n"
      "RFC 5903 and RFC 5114 print whole key exchanges. The library gets the private keys printed there,\n"
      "and must compute the same public values and secrets. Then it agrees with other implementations.\n");
  std::printf("  %-21s  %-16s %3s  %-13s  %-12s  %-13s  %s\n", "Source", "Side", "No.", "Group", "Public value",
              "Shared secret", "Matches");
}

void printPublished(const PublishedResult& result) {
  const PublishedSide& side = *result.published;
  std::printf("  %-21s  %-16s %3u  %-13s  %-12s  %-13s  %s", side.source.c_str(), side.side.c_str(),
              static_cast<unsigned>(side.group->number), side.group->name, beginning(side.publicValue).c_str(),
              beginning(side.secret).c_str(), result.agrees() ? "yes" : "NO");
  endRow();
}

void printNothingPublished(const Group& group) {
  std::printf("  RFC 5903 and RFC 5114 publish no exchange for group %u.", static_cast<unsigned>(group.number));
  endRow();
}

void printGroupHead() {
  std::puts(
      "\n=== Do two agents get the same keys? ===\n"
      "Two processes exchange keys over a socket on 127.0.0.1, as the two ends of an IKE negotiation do:\n"
      "each group once with each PRF. They compare all that they computed. A leading zero byte that gets\n"
      "lost (one secret in 256 has one) would make all keys differ.\n");
  std::printf("  %3s  %-13s %12s %12s   %-16s %8s %12s %9s\n", "No.", "Group", "Public bytes", "Secret bytes",
              "Both sides agree", "Init us", "Agreement us", "Key bytes");
}

void printGroup(const GroupResult& result) {
  const ExchangeResult& any = result.exchanges.back();
  const std::size_t good = agreeing(result);
  const std::string verdict = std::string(good == suites.size() ? "yes, " : "NO, ") + std::to_string(good) + " of " +
                              std::to_string(suites.size()) + " PRFs";
  std::printf("  %3u  %-13s %12zu %12zu   %-16s %8.0f %12.0f %9zu", static_cast<unsigned>(result.group->number),
              result.group->name, any.publicBytes, any.secretBytes, verdict.c_str(), medianInit(result),
              medianAgreement(result), keyBytes(result));
  endRow();
}

void printSuites() {
  std::puts("\n  Init: set up the group, create a key pair. Agreement: read the peer's value, compute the secret.");
  std::puts("  Both are times of the initiator in microseconds, the median of the four exchanges.");
  std::puts(
      "\n=== How many bytes of keys does a suite need? ===\n"
      "From one secret, prf+ makes the seven keys of an IKE SA (RFC 7296 section 2.14). The library knows\n"
      "how long each must be: one wrong length, and all keys after it are wrong too. In bytes:\n");
  std::printf("  %-15s %-16s %-19s %5s %9s %9s %9s %6s\n", "PRF", "Encryption", "Integrity", "SK_d", "SK_ai/ar",
              "SK_ei/er", "SK_pi/pr", "Sum");
  for (const Suite& suite : suites) {
    const KeyLengths lengths = keyLengths(suite);
    std::printf("  %-15s %-16s %-19s %5zu   2 x %3zu   2 x %3zu   2 x %3zu %6zu\n", suite.prfName, suite.encryptionName,
                suite.integrityName, lengths[SK_d], lengths[SK_ai], lengths[SK_ei], lengths[SK_pi],
                totalKeyBytes(suite));
  }
  std::puts("\n  AES-GCM takes 4 bytes of salt in addition to its key, and no integrity keys (RFC 4106, RFC 5282).");
}

void printSummary(const Results& results) {
  std::size_t good = 0;
  std::size_t drawn = 0;
  for (const GroupResult& group : results.groups) {
    good += agreeing(group);
    drawn += keyBytes(group);
  }
  std::size_t reproduced = 0;
  for (const PublishedResult& one : results.published) {
    reproduced += one.agrees() ? 1 : 0;
  }
  std::printf("\n%s: %zu of %zu published sides and %zu of %zu exchanges agree, %zu bytes of keys drawn, %.2f s.",
              results.failures.empty() ? "All well" : "FAILED", reproduced, results.published.size(), good,
              results.exchangesPlanned, drawn, results.seconds);
  endRow();
}

}  // namespace Exchange
