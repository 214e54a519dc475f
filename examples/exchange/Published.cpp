// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Published.h"

#include "Failure.h"
#include "SecretBytes.h"

#include <algorithm>
#include <charconv>
#include <fstream>

namespace Exchange {
namespace {

ByteVector bytesOf(const std::string& hex) {
  ByteVector bytes;
  for (std::size_t position = 0; position < hex.size(); position += 2) {
    unsigned char byte = 0;
    const char* const end = hex.data() + std::min(position + 2, hex.size());
    if (std::from_chars(hex.data() + position, end, byte, 16).ptr != end || hex.size() % 2 != 0) {
      throw Failure("\"" + hex + "\" is not an even number of hexadecimal digits");
    }
    bytes.push_back(byte);
  }
  return bytes;
}

const Group* groupOf(const std::string& text) {
  unsigned long number = 0;
  (void)std::from_chars(text.data(), text.data() + text.size(), number);  // 0, which is no group, if it is not a number
  const Group* const group = findGroup(number);
  if (group == nullptr) {
    throw Failure("there is no group \"" + text + "\"");
  }
  return group;
}

void setAttribute(PublishedSide& side, const std::string& name, const std::string& value) {
  if (name == "Source") {
    side.source = value;
  } else if (name == "Note") {
    side.side = value;
  } else if (name == "Group") {
    side.group = groupOf(value);
  } else if (name == "Private") {
    side.privateKey = bytesOf(value);
  } else if (name == "Public") {
    side.publicValue = bytesOf(value);
  } else if (name == "Peer") {
    side.peerPublicValue = bytesOf(value);
  } else if (name == "Secret") {
    side.secret = bytesOf(value);
  } else {
    throw Failure("\"" + name + "\" is not known");
  }
}

bool isComplete(const PublishedSide& side) {
  return !side.source.empty() && side.group != nullptr && !side.privateKey.empty() && !side.publicValue.empty() &&
         !side.peerPublicValue.empty() && !side.secret.empty();
}

// Adds the sides of one file: blocks of "Name = value" lines, each of which begins with its Source.
void readFile(const std::string& path, std::vector<PublishedSide>& sides) {
  std::ifstream file(path);
  if (!file) {
    throw Failure("cannot be read; --vectors DIR names the folder with the published exchanges");
  }
  const std::size_t before = sides.size();
  std::string line;
  while (std::getline(file, line)) {
    const std::size_t equals = line.find(" = ");
    if (line.empty() || line[0] == '#') {
      continue;
    }
    const std::string name = line.substr(0, equals);
    if (name == "Source") {
      sides.emplace_back();
    }
    if (equals == std::string::npos || sides.size() == before) {
      throw Failure("\"" + line + "\" is not expected here");
    }
    setAttribute(sides.back(), name, line.substr(equals + 3));
  }
  for (std::size_t index = before; index < sides.size(); ++index) {
    if (!isComplete(sides[index])) {
      throw Failure("an exchange of \"" + sides[index].source + "\" lacks a figure");
    }
  }
  if (sides.size() == before) {
    throw Failure("no exchange in the file");
  }
}

void compare(const ByteVector& computed, const ByteVector& published, const char* what) {
  if (computed != published) {
    throw Failure(std::string("the ") + what + " differs from the published one");
  }
}

void reproduceOrThrow(const PublishedSide& published) {
  Ipsec::IpsecDHGeneral exchange(published.group->number);
  require(exchange.initIpsecDH(), "IpsecDHGeneral::initIpsecDH");
  require(exchange.setMyPrivateKey(&published.privateKey), "IpsecDHGeneral::setMyPrivateKey");
  ByteVector publicValue;
  require(exchange.getMyPublicKey(&publicValue), "IpsecDHGeneral::getMyPublicKey");
  compare(publicValue, published.publicValue, "public value");
  require(exchange.setPeerPublicKey(&published.peerPublicValue), "IpsecDHGeneral::setPeerPublicKey");
  SecretBytes secret;
  require(exchange.getSharedSecret(&secret.bytes), "IpsecDHGeneral::getSharedSecret");
  compare(secret.bytes, published.secret, "shared secret");
}

}  // namespace

std::vector<PublishedSide> readPublished(const std::string& folder) {
  std::vector<PublishedSide> sides;
  for (const char* const name : {"rfc5903.txt", "rfc5114.txt"}) {
    const std::string path = folder + "/" + name;
    try {
      readFile(path, sides);
    } catch (const Failure& failure) {
      throw Failure(path + ": " + failure.what());
    }
  }
  return sides;
}

PublishedResult reproduce(const PublishedSide& published) {
  try {
    reproduceOrThrow(published);
  } catch (const Failure& failure) {
    return {&published, failure.what()};
  }
  return {&published, ""};
}

}  // namespace Exchange
