// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A small IKE agent: the command's main function.

#include "Esp.h"
#include "Failure.h"
#include "Ike1.h"
#include "Ike2.h"
#include "KeyLog.h"
#include "Link.h"
#include "Options.h"

#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <sstream>

namespace Agent {
namespace {

Secret readPsk(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  Secret psk(ByteVector(std::istreambuf_iterator<char>(file), {}));
  if (!psk.bytes.empty() && psk.bytes.back() == '\n') {
    psk.bytes.pop_back();
  }
  if (psk.bytes.empty()) {
    throw Failure(ExitCode::Usage, "no pre-shared key in " + path);
  }
  return psk;
}

// The two ends of the tunnel, without prefix lengths: the addresses between which the echo travels.
ByteVector echoEnd(const std::string& chosen, const std::string& fallback) {
  return parseSubnet(chosen.empty() ? fallback : chosen).address;
}

void sendEcho(const Options& options, const Link& link, ChildSa& child, const std::function<void()>& beforeRetry) {
  if (!options.echo) {
    return;
  }
  const ByteVector source = echoEnd(options.tsLocal, link.local().host());
  const ByteVector destination = echoEnd(options.tsRemote, options.link.peer);
  const auto time = echo(link, child, source, destination, beforeRetry);
  if (!time) {
    throw Failure(ExitCode::NoEcho, "the security associations are up, but no echo came back through the tunnel");
  }
  std::ostringstream milliseconds;
  milliseconds << std::fixed << std::setprecision(2) << static_cast<double>(time->count()) / 1000.0;
  std::cout << "echo through " << protectionName(child.protection()) << " in " << milliseconds.str() << " ms\n";
}

void rekeyAsAsked(const Options& options, Ike2Session& session) {
  if (options.zeroSecret == 0) {
    (void)session.rekey();
    return;
  }
  for (int count = 1; count <= options.zeroSecret; ++count) {
    if (session.rekey()) {
      std::cout << "a secret with a leading zero byte after " << count << " rekeyings\n";
      return;
    }
  }
  throw Failure(ExitCode::NotFound,
                "no secret with a leading zero byte in " + std::to_string(options.zeroSecret) + " rekeyings");
}

void useIke2(const Options& options, const Link& link, Ike2Session& session) {
  const auto nothing = [] {};
  ChildSa child = session.authenticate();
  sendEcho(options, link, child, nothing);
  const bool rekeying = options.rekey || options.zeroSecret > 0;
  if (rekeying) {
    rekeyAsAsked(options, session);
  }
  if (rekeying || options.pfsGroup != Ipsec::MODP_NONE) {
    ChildSa second = session.createChild(options.pfsGroup);
    session.deleteChild(child);
    sendEcho(options, link, second, nothing);
  }
  session.close();
}

void leaveHalfOpen(const Options& options, const Secret& psk) {
  for (int count = 0; count < options.halfOpen; ++count) {
    Link link(options.link);
    KeyLog noLog("");
    Ike2Session(options, link, psk, noLog).init();
  }
}

void runIke2(const Options& options, const Secret& psk, KeyLog& keyLog) {
  leaveHalfOpen(options, psk);
  Link link(options.link);
  Ike2Session session(options, link, psk, keyLog);
  session.init();
  try {
    useIke2(options, link, session);
  } catch (const std::exception&) {
    // The first failure is the one to report, whether or not the peer still answers the deletion.
    try {
      session.close();
    } catch (const std::exception&) {
    }
    throw;
  }
}

void runIke1(const Options& options, const Secret& psk, KeyLog& keyLog) {
  Link link(options.link);
  Ike1Session session(options, link, psk, keyLog);
  session.mainMode();
  ChildSa child = session.quickMode(options.pfsGroup);
  sendEcho(options, link, child, [&session] { session.repeatLast(); });
  session.close();
}

int run(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  if (options.help) {
    std::cout << usage();
    return static_cast<int>(ExitCode::Success);
  }
  if (Ipsec::initKeyGenLib() != 1) {
    throw Failure(ExitCode::Internal, "preparing the library failed");
  }
  const Secret psk = readPsk(options.pskFile);
  KeyLog keyLog(options.keyLog);
  options.version == 1 ? runIke1(options, psk, keyLog) : runIke2(options, psk, keyLog);
  Ipsec::cleanupKeyGenLib();
  return static_cast<int>(ExitCode::Success);
}

}  // namespace
}  // namespace Agent

int main(int argc, char** argv) {
  using Agent::ExitCode;
  try {
    return Agent::run(argc, argv);
  } catch (const Agent::Failure& failure) {
    std::cerr << "ipsec-agent: " << failure.what() << '\n';
    return static_cast<int>(failure.code);
  } catch (const Agent::Malformed& malformed) {
    std::cerr << "ipsec-agent: the peer's answer makes no sense: " << malformed.what() << '\n';
    return static_cast<int>(ExitCode::Protocol);
  } catch (const std::exception& error) {
    std::cerr << "ipsec-agent: " << error.what() << '\n';
    return static_cast<int>(ExitCode::Internal);
  }
}
