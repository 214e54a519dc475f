// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include "Failure.h"

#include <charconv>
#include <functional>

namespace Agent {
namespace {

constexpr const char* usageText = R"(Usage: ipsec-agent --peer ADDRESS --psk-file FILE [options]

Sets up security associations with an IKE peer as the initiator, sends an echo request through the tunnel, and deletes
the associations again.

  --peer ADDRESS         the peer's IPv4 or IPv6 address
  --psk-file FILE        the pre-shared key: the file's bytes without a newline at the end
  --local ADDRESS        this host's address (default: chosen by the host's routes)
  --version 1|2          IKEv1 main and quick mode, or IKEv2 (default 2)
  --group LIST           Diffie-Hellman groups by number or name, in the order in which they are tried (default 14)
                         1 modp768, 2 modp1024, 5 modp1536, 14 modp2048, 15 modp3072, 16 modp4096, 17 modp6144,
                         19 ecp256, 20 ecp384, 21 ecp521, 24 modp2048s256
  --prf NAME             sha1 sha256 sha384 sha512 (default sha256)
  --encr NAME            of the IKE SA: 3des aes128 aes192 aes256 and, for IKEv2, aes{128,192,256}gcm{8,12,16}
                         (default aes256)
  --integ NAME           of the IKE SA: sha1 sha256 sha384 sha512 (default sha256); not used by IKEv1 and GCM
  --esp-encr NAME        of the tunnel: a name as for --encr, or null (default aes256)
  --esp-integ NAME       of the tunnel: a name as for --integ (default sha256)
  --pfs GROUP            IKEv2: a second CHILD_SA with its own exchange of that group, in place of the first
                         IKEv1: quick mode with its own exchange
  --rekey                IKEv2: rekey the IKE SA, then set up a second CHILD_SA from the new keys
  --id NAME              this side's identity: an address or a name (default: this host's address)
  --peer-id NAME         the identity that the peer must prove (default: its address)
  --ts-local SUBNET      this end of the tunnel; the echo comes from this address (default: this host's address)
  --ts-remote SUBNET     the other end of the tunnel; the echo goes to this address (default: the peer's address)
  --port N               the port of IKE, at both ends (default 500)
  --nat-port N           the port of IKE and ESP in UDP, at both ends (default 4500)
  --timeout MS           how long the first try waits; each further one waits twice as long (default 1000)
  --tries N              how often each request is sent at most (default 4)
  --no-echo              send nothing through the tunnel
  -v                     print each step; keys are never printed
  --help                 print this text

For tests only:
  --key-log FILE         write every derived key to FILE (mode 0600). Whoever can read FILE can read the traffic.
  --half-open N          first leave N exchanges half open, so that the peer asks for a cookie
  --zero-public          use a weak private key whose public value begins with a zero byte
  --zero-secret N        rekey, with weak private keys, until the secret begins with a zero byte; at most N times

Exit codes: 0 success; 1 a failure on this side; 2 wrong command line; 3 no answer; 4 refused by the peer;
5 the peer did not prove its identity; 6 an answer that makes no sense; 7 no echo; 8 a test option found nothing
)";

struct Row {
  const char* name;
  std::function<void(Options&, const std::string&)> take;
};

struct Switch {
  const char* name;
  std::function<void(Options&)> set;
};

int parseNumber(const std::string& text, int least, int most) {
  int number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < least || number > most) {
    throw Failure(ExitCode::Usage,
                  "'" + text + "' is not a number from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return number;
}

std::uint16_t parsePort(const std::string& text) {
  return static_cast<std::uint16_t>(parseNumber(text, 1, 65535));
}

const std::vector<Row>& rows() {
  static const std::vector<Row> table = {
      {"--peer", [](Options& to, const std::string& text) { to.link.peer = text; }},
      {"--local", [](Options& to, const std::string& text) { to.link.local = text; }},
      {"--psk-file", [](Options& to, const std::string& text) { to.pskFile = text; }},
      {"--version", [](Options& to, const std::string& text) { to.version = parseNumber(text, 1, 2); }},
      {"--group", [](Options& to, const std::string& text) { to.groups = parseGroups(text); }},
      {"--prf", [](Options& to, const std::string& text) { to.prf = parsePrf(text); }},
      {"--encr", [](Options& to, const std::string& text) { to.ike.encr = parseEncr(text); }},
      {"--integ", [](Options& to, const std::string& text) { to.ike.integ = parseInteg(text); }},
      {"--esp-encr", [](Options& to, const std::string& text) { to.esp.encr = parseEncr(text); }},
      {"--esp-integ", [](Options& to, const std::string& text) { to.esp.integ = parseInteg(text); }},
      {"--pfs", [](Options& to, const std::string& text) { to.pfsGroup = parseGroup(text); }},
      {"--id", [](Options& to, const std::string& text) { to.id = text; }},
      {"--peer-id", [](Options& to, const std::string& text) { to.peerId = text; }},
      {"--ts-local", [](Options& to, const std::string& text) { to.tsLocal = text; }},
      {"--ts-remote", [](Options& to, const std::string& text) { to.tsRemote = text; }},
      {"--port", [](Options& to, const std::string& text) { to.link.port = parsePort(text); }},
      {"--nat-port", [](Options& to, const std::string& text) { to.link.natPort = parsePort(text); }},
      {"--timeout",
       [](Options& to, const std::string& text) {
         to.link.timeout = std::chrono::milliseconds(parseNumber(text, 1, 60000));
       }},
      {"--tries", [](Options& to, const std::string& text) { to.link.tries = parseNumber(text, 1, 10); }},
      {"--key-log", [](Options& to, const std::string& text) { to.keyLog = text; }},
      {"--half-open", [](Options& to, const std::string& text) { to.halfOpen = parseNumber(text, 0, 10); }},
      {"--zero-secret", [](Options& to, const std::string& text) { to.zeroSecret = parseNumber(text, 1, 100000); }},
  };
  return table;
}

const std::vector<Switch>& switches() {
  static const std::vector<Switch> table = {
      {"--rekey", [](Options& to) { to.rekey = true; }},
      {"--no-echo", [](Options& to) { to.echo = false; }},
      {"--zero-public", [](Options& to) { to.zeroPublic = true; }},
      {"-v", [](Options& to) { to.verbose = true; }},
      {"--help", [](Options& to) { to.help = true; }},
  };
  return table;
}

bool takeSwitch(Options& options, const std::string& name) {
  for (const Switch& row : switches()) {
    if (name == row.name) {
      row.set(options);
      return true;
    }
  }
  return false;
}

const Row& findRow(const std::string& name) {
  for (const Row& row : rows()) {
    if (name == row.name) {
      return row;
    }
  }
  throw Failure(ExitCode::Usage, "unknown option '" + name + "'; --help lists all options");
}

void check(const Options& options) {
  const bool ikeGcm = options.ike.isAead();
  if (options.link.peer.empty() || options.pskFile.empty()) {
    throw Failure(ExitCode::Usage, "--peer and --psk-file are required; see --help");
  }
  if (options.ike.encr.algo == Ipsec::ENCR_NULL) {
    throw Failure(ExitCode::Usage, "an IKE SA must be encrypted: null is for --esp-encr");
  }
  if (options.version == 1 && (ikeGcm || options.rekey || options.zeroSecret > 0 || options.halfOpen > 0)) {
    throw Failure(ExitCode::Usage, "IKEv1 has no GCM for its own messages, and no --rekey, --zero-secret, --half-open");
  }
}

}  // namespace

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int index = 1; index < argc; ++index) {
    const std::string name = argv[index];
    if (takeSwitch(options, name)) {
      continue;
    }
    const Row& row = findRow(name);
    if (++index == argc) {
      throw Failure(ExitCode::Usage, name + " needs a value");
    }
    row.take(options, argv[index]);
  }
  if (!options.help) {
    check(options);
  }
  return options;
}

std::string usage() {
  return usageText;
}

}  // namespace Agent
