// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Link.h"

#include "Failure.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Agent {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t largestDatagram = 65535;
constexpr unsigned char nonEspMarker[4] = {};  // RFC 3948 section 2.2

[[noreturn]] void failed(const std::string& what) {
  throw Failure(ExitCode::Internal, what + ": " + std::strerror(errno));
}

// A connected socket receives only from its peer, and reports ICMP errors.
Socket openSocket(const LinkOptions& options, std::uint16_t port) {
  const Endpoint remote = parseEndpoint(options.peer, port);
  Socket socket(::socket(remote.storage.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (socket.get() < 0) {
    failed("opening a socket");
  }
  const std::string any = remote.storage.ss_family == AF_INET ? "0.0.0.0" : "::";
  const Endpoint local = parseEndpoint(options.local.empty() ? any : options.local, port);
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&local.storage), local.size) != 0) {
    failed("binding to " + local.host() + " port " + std::to_string(port));
  }
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&remote.storage), remote.size) != 0) {
    failed("reaching " + remote.host());
  }
  return socket;
}

void sendBytes(const Socket& socket, ByteView bytes) {
  // A failed send counts as a lost packet: the exchange tries again, and reports in the end that no answer came.
  (void)send(socket.get(), bytes.data(), bytes.size(), 0);
}

}  // namespace

std::string Endpoint::host() const {
  char text[INET6_ADDRSTRLEN] = {};
  const ByteVector address = addressBytes();
  (void)inet_ntop(storage.ss_family, address.data(), text, sizeof(text));  // the buffer fits every address
  return text;
}

ByteVector Endpoint::addressBytes() const {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&storage);
  if (storage.ss_family == AF_INET) {
    const auto* first = bytes + offsetof(sockaddr_in, sin_addr);
    return {first, first + 4};
  }
  const auto* first = bytes + offsetof(sockaddr_in6, sin6_addr);
  return {first, first + 16};
}

std::uint16_t Endpoint::port() const {
  // The port is at the same place in both address families.
  const auto* bytes = reinterpret_cast<const unsigned char*>(&storage) + offsetof(sockaddr_in, sin_port);
  return ByteReader(ByteView(bytes, 2)).u16();
}

Endpoint parseEndpoint(const std::string& host, std::uint16_t port) {
  Endpoint endpoint;
  sockaddr_in ipv4 = {};
  if (inet_pton(AF_INET, host.c_str(), &ipv4.sin_addr) == 1) {
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    std::memcpy(&endpoint.storage, &ipv4, sizeof(ipv4));
    endpoint.size = sizeof(ipv4);
    return endpoint;
  }
  sockaddr_in6 ipv6 = {};
  if (inet_pton(AF_INET6, host.c_str(), &ipv6.sin6_addr) == 1) {
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(port);
    std::memcpy(&endpoint.storage, &ipv6, sizeof(ipv6));
    endpoint.size = sizeof(ipv6);
    return endpoint;
  }
  throw Failure(ExitCode::Usage, "'" + host + "' is not an IPv4 or IPv6 address");
}

Socket::~Socket() {
  if (fd >= 0) {
    (void)close(fd);
  }
}

Link::Link(const LinkOptions& chosen)
    : options(chosen), ikeSocket(openSocket(chosen, chosen.port)), natSocket(openSocket(chosen, chosen.natPort)) {}

Endpoint Link::local() const {
  Endpoint endpoint;
  endpoint.size = sizeof(endpoint.storage);
  if (getsockname(current().get(), reinterpret_cast<sockaddr*>(&endpoint.storage), &endpoint.size) != 0) {
    failed("asking for the local address");
  }
  return endpoint;
}

Endpoint Link::remote() const {
  return parseEndpoint(options.peer, natPortUsed ? options.natPort : options.port);
}

void Link::sendIke(ByteView message) const {
  if (!natPortUsed) {
    sendBytes(ikeSocket, message);
    return;
  }
  sendBytes(natSocket, concat({nonEspMarker, message}));
}

void Link::sendEsp(ByteView packet) const {
  sendBytes(natSocket, packet);
}

std::optional<Link::Datagram> Link::read() const {
  ByteVector bytes(largestDatagram);
  const ssize_t count = recv(current().get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (count < 0) {
    return std::nullopt;  // an ICMP error, for example while the peer is not up yet; it counts as no answer
  }
  bytes.resize(static_cast<std::size_t>(count));
  if (!natPortUsed) {
    return Datagram{false, std::move(bytes)};
  }
  if (bytes.size() <= sizeof(nonEspMarker)) {
    return std::nullopt;  // a keepalive
  }
  if (!std::equal(std::begin(nonEspMarker), std::end(nonEspMarker), bytes.begin())) {
    return Datagram{true, std::move(bytes)};
  }
  bytes.erase(bytes.begin(), bytes.begin() + sizeof(nonEspMarker));
  return Datagram{false, std::move(bytes)};
}

std::optional<Link::Datagram> Link::receive(Clock::time_point deadline) const {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      return std::nullopt;
    }
    pollfd waiting = {current().get(), POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) {
      failed("waiting for the peer");
    }
    if (waiting.revents == 0) {
      continue;
    }
    std::optional<Datagram> datagram = read();
    if (datagram) {
      return datagram;
    }
  }
}

void Link::exchange(ByteView request, const std::function<bool(ByteView)>& accept) const {
  auto patience = options.timeout;
  std::string dropped;
  for (int attempt = 0; attempt < options.tries; ++attempt, patience *= 2) {
    sendIke(request);
    const Clock::time_point deadline = Clock::now() + patience;
    while (const std::optional<Datagram> datagram = receive(deadline)) {
      try {
        if (!datagram->isEsp && accept(datagram->bytes)) {
          return;
        }
      } catch (const Malformed& malformed) {
        dropped = std::string(" (a message was dropped: ") + malformed.what() + ")";
      }
    }
  }
  throw Failure(ExitCode::Timeout, "no answer from " + options.peer + " port " + std::to_string(remote().port()) +
                                       " after " + std::to_string(options.tries) + " tries" + dropped);
}

std::optional<ByteVector> Link::receiveEsp(Clock::time_point deadline) const {
  while (std::optional<Datagram> datagram = receive(deadline)) {
    if (datagram->isEsp) {
      return std::move(datagram->bytes);
    }
  }
  return std::nullopt;
}

}  // namespace Agent
