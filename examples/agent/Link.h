// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The two UDP ports of an IKE peer: 500, and 4500 where IKE and ESP share one port (RFC 3948).
#pragma once

#include "Bytes.h"

#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Agent {

// A UDP socket address.
struct Endpoint {
  sockaddr_storage storage = {};
  socklen_t size = 0;

  std::string host() const;
  ByteVector addressBytes() const;
  std::uint16_t port() const;
};

// Reads an IPv4 or IPv6 address. Throws Failure (Usage).
Endpoint parseEndpoint(const std::string& host, std::uint16_t port);

// Owns a file descriptor.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int descriptor) : fd(descriptor) {}
  Socket(Socket&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~Socket();

  int get() const noexcept { return fd; }

 private:
  int fd = -1;
};

struct LinkOptions {
  std::string peer;
  std::string local;  // empty: chosen by the host's routes
  std::uint16_t port = 500;
  std::uint16_t natPort = 4500;
  std::chrono::milliseconds timeout{1000};  // of the first try; doubled for each further one
  int tries = 4;
};

// Link sends to one peer and receives only from that peer. It starts on the IKE port.
class Link {
 public:
  explicit Link(const LinkOptions& chosen);

  const LinkOptions& settings() const noexcept { return options; }
  Endpoint local() const;   // of the port in use
  Endpoint remote() const;  // of the port in use

  void moveToNatPort() { natPortUsed = true; }

  void sendIke(ByteView message) const;
  void sendEsp(ByteView packet) const;

  // Sends a request, and repeats it with growing waiting times until accept returns true for a received IKE message. A
  // message for which accept throws Malformed is dropped. Throws Failure (Timeout) after the last try.
  void exchange(ByteView request, const std::function<bool(ByteView)>& accept) const;

  // Waits for one ESP packet. Returns nothing when the time is over.
  std::optional<ByteVector> receiveEsp(std::chrono::steady_clock::time_point deadline) const;

 private:
  struct Datagram {
    bool isEsp;
    ByteVector bytes;
  };
  std::optional<Datagram> receive(std::chrono::steady_clock::time_point deadline) const;
  std::optional<Datagram> read() const;
  const Socket& current() const { return natPortUsed ? natSocket : ikeSocket; }

  LinkOptions options;
  Socket ikeSocket;
  Socket natSocket;
  bool natPortUsed = false;
};

}  // namespace Agent
