// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Wire.h"

#include "Failure.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace Exchange {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t headSize = 5;
constexpr std::size_t longestBody = 16384;

[[noreturn]] void failWithErrno(const std::string& what) {
  throw LinkFailure(what + ": " + std::system_category().message(errno));
}

void appendNumber(ByteVector& bytes, std::size_t value, unsigned size) {
  for (unsigned left = size; left > 0; --left) {
    bytes.push_back(static_cast<unsigned char>(value >> (8 * (left - 1))));
  }
}

std::size_t readNumber(const unsigned char* bytes, std::size_t size) {
  std::size_t value = 0;
  for (std::size_t index = 0; index < size; ++index) {
    value = value << 8 | bytes[index];
  }
  return value;
}

// Waits until the socket is ready for the event. Throws LinkFailure when the deadline passes first.
void waitFor(const Descriptor& socket, short event, Clock::time_point deadline, const char* what) {
  while (true) {
    const auto left = std::chrono::ceil<Timeout>(deadline - Clock::now()).count();
    pollfd watched = {socket.number(), event, 0};
    const int ready = left > 0 ? poll(&watched, 1, static_cast<int>(left)) : 0;
    if (ready > 0) {
      return;
    }
    if (ready == 0) {
      throw LinkFailure(std::string("the peer process is silent: ") + what + " took longer than the timeout");
    }
    if (errno != EINTR) {
      failWithErrno("poll");
    }
  }
}

bool wouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

void setNonBlocking(const Descriptor& socket) {
  const int flags = fcntl(socket.number(), F_GETFL);
  if (flags < 0 || fcntl(socket.number(), F_SETFL, flags | O_NONBLOCK) != 0) {
    failWithErrno("fcntl");
  }
}

std::vector<ByteVector> splitFields(const ByteVector& body) {
  std::vector<ByteVector> fields;
  std::size_t position = 0;
  while (position < body.size()) {
    const std::size_t left = body.size() - position;
    const std::size_t length = left < 2 ? left : readNumber(&body[position], 2);
    if (left < 2 || length > left - 2) {
      throw LinkFailure("the peer process sent a field that extends beyond its message");
    }
    const auto start = body.begin() + static_cast<std::ptrdiff_t>(position) + 2;
    fields.emplace_back(start, start + static_cast<std::ptrdiff_t>(length));
    position += 2 + length;
  }
  return fields;
}

}  // namespace

ByteVector fieldOf(const std::string& text) {
  return {text.begin(), text.end()};
}

ByteVector fieldOf(unsigned long number) {
  ByteVector field;
  appendNumber(field, number, 4);
  return field;
}

std::string textOf(const ByteVector& field) {
  return {field.begin(), field.end()};
}

unsigned long numberOf(const ByteVector& field) {
  if (field.size() != 4) {
    throw LinkFailure("the peer process sent a number of the wrong length");
  }
  return readNumber(field.data(), field.size());
}

Descriptor::~Descriptor() {
  if (fd >= 0) {
    (void)close(fd);
  }
}

Descriptor listenOnLoopback() {
  Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (listener.number() < 0 ||
      bind(listener.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener.number(), 1) != 0) {
    failWithErrno("cannot listen on 127.0.0.1");
  }
  return listener;
}

Link Link::connectTo(const Descriptor& listener, Timeout timeout) {
  sockaddr_in address = {};
  socklen_t size = sizeof(address);
  Descriptor connected(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  // On the loopback interface a connection is accepted or refused at once.
  if (getsockname(listener.number(), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||  //
      connected.number() < 0 || connect(connected.number(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    failWithErrno("cannot connect to 127.0.0.1");
  }
  return {std::move(connected), timeout};
}

Link Link::acceptFrom(const Descriptor& listener, Timeout timeout) {
  setNonBlocking(listener);
  waitFor(listener, POLLIN, Clock::now() + timeout, "connecting");
  Descriptor connected(accept4(listener.number(), nullptr, nullptr, SOCK_CLOEXEC));
  if (connected.number() < 0) {
    failWithErrno("cannot accept a connection");
  }
  return {std::move(connected), timeout};
}

Link::Link(Descriptor connected, Timeout longest) : socket(std::move(connected)), timeout(longest) {
  setNonBlocking(socket);
  const int on = 1;
  // A second message need not wait for the acknowledgement of the first. If this call fails, it merely takes longer.
  (void)setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

void Link::send(const Message& message) {
  ByteVector body;
  for (const ByteVector& field : message.fields) {
    appendNumber(body, field.size(), 2);
    body.insert(body.end(), field.begin(), field.end());
  }
  ByteVector bytes = {static_cast<unsigned char>(message.type)};
  appendNumber(bytes, body.size(), 4);
  bytes.insert(bytes.end(), body.begin(), body.end());

  const Deadline deadline = Clock::now() + timeout;
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(socket.number(), &bytes[sent], bytes.size() - sent, MSG_NOSIGNAL);
    if (count >= 0) {
      sent += static_cast<std::size_t>(count);
    } else if (wouldBlock()) {
      waitFor(socket, POLLOUT, deadline, "accepting a message");
    } else {
      failWithErrno("the peer process is gone");
    }
  }
}

Message Link::receive(MessageType type, std::size_t fieldCount) {
  std::optional<Message> message = receiveAny();
  if (!message) {
    throw LinkFailure("the peer process is gone: it closed the connection in the middle of an exchange");
  }
  if (message->type == MessageType::Refusal && message->fields.size() == 1) {
    throw Refused("the peer says: " + textOf(message->fields[0]));
  }
  if (message->type != type || message->fields.size() != fieldCount) {
    throw LinkFailure("the peer process sent a message other than the one expected");
  }
  return std::move(*message);
}

std::optional<Message> Link::receiveAny() {
  const Deadline deadline = Clock::now() + timeout;
  std::array<unsigned char, headSize> head = {};
  const std::size_t got = read(head.data(), head.size(), deadline);
  if (got == 0) {
    return std::nullopt;
  }
  const std::size_t length = readNumber(&head[1], headSize - 1);
  if (got == headSize && length > longestBody) {
    throw LinkFailure("the peer process sent a message that is too long");
  }
  ByteVector body(got == headSize ? length : 0);
  if (got < headSize || read(body.data(), length, deadline) < length) {
    throw LinkFailure("the peer process is gone: it closed the connection in the middle of a message");
  }
  return Message{static_cast<MessageType>(head[0]), splitFields(body)};
}

// Returns how many bytes were received: fewer than asked for only if the peer has closed the connection.
std::size_t Link::read(unsigned char* into, std::size_t size, Deadline deadline) {
  std::size_t got = 0;
  while (got < size) {
    const ssize_t count = recv(socket.number(), into + got, size - got, 0);
    if (count > 0) {
      got += static_cast<std::size_t>(count);
    } else if (count == 0) {
      break;
    } else if (wouldBlock()) {
      waitFor(socket, POLLIN, deadline, "an answer");
    } else {
      failWithErrno("the peer process is gone");
    }
  }
  return got;
}

}  // namespace Exchange
