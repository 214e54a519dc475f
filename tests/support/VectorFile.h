// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Reader for the known-answer files of the tests.
//
// A file is a list of blocks separated by blank lines. A block is a list of lines "Name = value"; "#" starts a comment
// line. The accessor decides how a value is read: as bytes in hex (or ASCII text in double quotes), a decimal number,
// or text. An empty value ("Key =") is an empty byte string. Names are case-sensitive and occur once in a block.
//
// Nothing is skipped silently. A malformed line, a repeated name, a file without blocks, a missing attribute and a
// value of the wrong kind throw VectorFileError, whose text starts with file:line; an attribute that the test has not
// read fails the test in finish(). "Note" and "Source" (in any case) are for people and need not be read.
//
//   TEST(HmacPrf, AnswersTheVectors) {
//     forEachBlock(folder + "/hmac.txt", [](Block& block) {
//       EXPECT_EQ(hmac(block.text("Hash"), block.bytes("Key"), block.bytes("Input")), block.bytes("Output"));
//     });
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace Ipsec::Testing {

class VectorFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Block is one case. The accessors mark the attribute as read and throw VectorFileError when the block does not have it
// or when its value is not of that kind.
class Block {
 public:
  const std::string& text(const std::string& name);
  std::uint64_t number(const std::string& name);
  std::vector<unsigned char> bytes(const std::string& name);

  // Returns whether the block has the attribute, without marking it as read.
  bool has(const std::string& name) const;

  // Marks an attribute that this test does not need as read, whether or not the block has it.
  void ignore(const std::string& name);

  // Returns "file:line", the place of the block's first line, with the note when there is one: for SCOPED_TRACE.
  std::string where() const;

  // Fails the running test, naming each attribute that was never read.
  void finish() const;

 private:
  friend class VectorFile;

  struct Attribute {
    std::string value;
    std::size_t line;
    bool read;
  };

  Block(std::string path, std::size_t line);
  Attribute& find(const std::string& name);

  std::string path;
  std::size_t firstLine;
  std::map<std::string, Attribute> attributes;
};

// VectorFile reads a whole file: for (Block& block : VectorFile(path)) { SCOPED_TRACE(block.where()); ... }
class VectorFile {
 public:
  explicit VectorFile(const std::string& path);

  std::size_t size() const { return blocks.size(); }
  std::vector<Block>::iterator begin() { return blocks.begin(); }
  std::vector<Block>::iterator end() { return blocks.end(); }

 private:
  void addLine(const std::string& path, std::size_t lineNumber, const std::string& line);

  std::vector<Block> blocks;
  bool inBlock = false;
};

// Runs check on every block of the file, with the block's place in the trace of each failure, and finishes the block.
// A VectorFileError or another exception fails the test, and the next block follows. Returns the number of blocks.
std::size_t forEachBlock(const std::string& path, const std::function<void(Block&)>& check);

}  // namespace Ipsec::Testing
