// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Messages between the two processes, over TCP. A message consists of a type byte, the length of its body in four
// bytes, and the body. The body is a list of fields, each with its length in two bytes in front. All numbers are
// big-endian.
#pragma once

#include "Ipsec.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Exchange {

using Ipsec::ByteVector;

enum class MessageType : unsigned char {
  Offer = 1,         // group, PRF, SPI, public value, nonce
  Answer = 2,        // SPI, public value, nonce
  Fingerprints = 3,  // one field per item
  Verdict = 4,       // one text that says what the responder found to differ; empty when nothing does
  Refusal = 5,       // one text: this exchange has failed on the sender's side
};

struct Message {
  MessageType type;
  std::vector<ByteVector> fields;
};

ByteVector fieldOf(const std::string& text);
ByteVector fieldOf(unsigned long number);
std::string textOf(const ByteVector& field);
// Throws LinkFailure for a field that is not a number.
unsigned long numberOf(const ByteVector& field);

// A descriptor that is closed when this object is destroyed.
class Descriptor {
 public:
  explicit Descriptor(int number) : fd(number) {}
  Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  Descriptor& operator=(Descriptor&&) = delete;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();

  int number() const { return fd; }

 private:
  int fd;
};

using Timeout = std::chrono::milliseconds;

// Opens a listening socket on 127.0.0.1 at a port that the kernel chooses. Throws LinkFailure.
Descriptor listenOnLoopback();

// Link is one connection. No call waits longer than the timeout, whatever the peer does. Every failure is a
// LinkFailure, and the connection must not be used after one.
class Link {
 public:
  // Connects to a listening socket on this host.
  static Link connectTo(const Descriptor& listener, Timeout timeout);
  // Waits for a connection.
  static Link acceptFrom(const Descriptor& listener, Timeout timeout);

  void send(const Message& message);

  // Returns the next message, which must have this type and that many fields. Throws Refused for a Refusal.
  Message receive(MessageType type, std::size_t fieldCount);

  // Returns the next message of any type, or none if the peer has closed the connection between two messages.
  std::optional<Message> receiveAny();

 private:
  Link(Descriptor connected, Timeout longest);

  using Deadline = std::chrono::steady_clock::time_point;
  std::size_t read(unsigned char* into, std::size_t size, Deadline deadline);

  Descriptor socket;
  Timeout timeout;
};

}  // namespace Exchange
