// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "FileChanges.h"

#include "DaemonFiles.h"
#include "LineIndex.h"

#include <algorithm>
#include <memory_resource>
#include <optional>
#include <string>

namespace Ipsec {

namespace {

std::string_view withoutNewline(std::string_view line) {
  return line.substr(0, line.find('\n'));
}

// Returns the length of the first line with its newline, if it has one.
std::size_t lineLength(std::string_view text) {
  return std::min(text.find('\n'), text.size() - 1) + 1;
}

// Appends whole lines. Every line gets a newline, also the last of a file that ends without one.
void appendLines(TextPieces& pieces, std::string_view text) {
  pieces.append(text);
  if (!text.empty() && text.back() != '\n') {
    pieces.append("\n");
  }
}

// Returns where the first line begins that holds the name of the global section, or npos.
std::size_t globalLine(std::string_view text) {
  const std::size_t found = text.find(globalSection);
  return found == text.npos ? found : text.rfind('\n', found) + 1;  // npos + 1 is 0: in the first line.
}

// --- The connections file --------------------------------------------------------------------------------------------

// A file is what stands ahead of its first head, and one block for each head, which reaches up to the next one. A
// section is removed as a block. The global section is removed from its first line up to the end of the block that it
// is in.
class ConnectionBlocks {
 public:
  // Room is made for as many heads as there are changes: mostly there are as many in the old text or in the new one.
  ConnectionBlocks(std::string_view text, std::size_t changes) {
    heads.reserve(changes);
    blocks.reserve(changes);
    ahead = text.substr(0, nextHead(text, 0));
    globalAhead = globalLine(ahead);
    append(text.substr(ahead.size()));
  }

  void make(const ConnectionChange& change) {
    if (change.replacesGlobal) {
      removeGlobalSection();
    }
    removeSection(change.head);
    if (!change.newGlobal.empty()) {
      newGlobal = change.newGlobal;
    }
    append(change.section);
  }

  TextPieces text() const {
    TextPieces pieces;
    pieces.append(newGlobal);
    appendLines(pieces, ahead);
    for (const std::string_view block : blocks) {
      appendLines(pieces, block);
    }
    return pieces;
  }

 private:
  // Returns where the first head at or behind a place begins, or the end of the text.
  static std::size_t nextHead(std::string_view text, std::size_t from) {
    while (from < text.size() && !isSectionHead(text.substr(from))) {
      from += lineLength(text.substr(from));
    }
    return from;
  }

  void append(std::string_view text) {
    while (!text.empty()) {
      const std::string_view block = text.substr(0, nextHead(text, lineLength(text)));
      heads.add(copied(withoutNewline(block)), blocks.size());
      if (globalLine(block) != block.npos) {
        withGlobal.push_back(blocks.size());
      }
      blocks.push_back(block);
      text.remove_prefix(block.size());
    }
  }

  // Heads lie close together in memory. In the text they lie a section's length apart, and in a large one a search
  // would wait for memory longer than it computes.
  std::string_view copied(std::string_view head) {
    char* const copy = static_cast<char*>(headTexts.allocate(head.size(), 1));
    std::copy(head.begin(), head.end(), copy);
    return {copy, head.size()};
  }

  void removeGlobalSection() {
    if (!newGlobal.empty()) {  // stands at the top, and everything up to the first head belongs to it
      newGlobal = {};
      ahead = {};
      globalAhead = ahead.npos;
      return;
    }
    if (globalAhead != ahead.npos) {
      ahead = ahead.substr(0, globalAhead);
      globalAhead = ahead.npos;
      return;
    }
    while (firstGlobal < withGlobal.size()) {
      const std::size_t place = withGlobal[firstGlobal++];
      std::string_view& block = blocks[place];
      if (block.empty()) {  // has been removed as a section
        continue;
      }
      const std::size_t line = globalLine(block);
      if (line == 0) {
        heads.remove(static_cast<LineIndex::Number>(place));
      }
      block = block.substr(0, line);
      return;
    }
  }

  void removeSection(std::string_view head) {
    const LineIndex::Number found = heads.first(head);
    if (found == LineIndex::none) {
      return;
    }
    heads.remove(found);
    blocks[found] = {};
  }

  std::string_view newGlobal;
  std::string_view ahead;
  std::size_t globalAhead;
  std::vector<std::string_view> blocks;  // in the order of the file; those that are removed are empty
  std::vector<std::size_t> withGlobal;   // the blocks that hold the name of the global section when they are added
  std::size_t firstGlobal = 0;           // of these, the first that may still hold it
  std::pmr::monotonic_buffer_resource headTexts{std::pmr::new_delete_resource()};
  LineIndex heads{LineMatcher::Covers::WholeLine};
};

// --- The secrets file ------------------------------------------------------------------------------------------------

class SecretEntries {
 public:
  SecretEntries(std::string_view text, std::size_t changes) {
    starts.reserve(changes);
    lines.reserve(changes);
    append(text);
  }

  void make(const SecretChange& change) {
    const LineIndex::Number found = change.start ? starts.first(*change.start) : LineIndex::none;
    if (found != LineIndex::none) {
      starts.remove(found);
      lines[found] = {};
    }
    append({change.entry.data(), change.entry.size()});
  }

  TextPieces text() const {
    TextPieces pieces;
    for (const std::string_view line : lines) {
      appendLines(pieces, line);
    }
    return pieces;
  }

 private:
  void append(std::string_view text) {
    while (!text.empty()) {
      const std::string_view line = text.substr(0, lineLength(text));
      starts.add(withoutNewline(line), lines.size());
      lines.push_back(line);
      text.remove_prefix(line.size());
    }
  }

  std::vector<std::string_view>
      lines;  // in the order of the file, with their newlines; those that are removed are empty
  LineIndex starts{LineMatcher::Covers::Start};
};

template <class Parts, class Change>
TextPieces madeInParts(std::string_view oldText, const std::vector<Change>& changes) {
  Parts parts(oldText, changes.size());
  for (const Change& change : changes) {
    parts.make(change);
  }
  return parts.text();
}

}  // namespace

void TextPieces::append(std::string_view piece) {
  if (piece.empty()) {
    return;
  }
  if (!pieces.empty() && pieces.back().data() + pieces.back().size() == piece.data()) {
    pieces.back() = std::string_view(pieces.back().data(), pieces.back().size() + piece.size());
  } else {
    pieces.push_back(piece);
  }
}

ConnectionChange::ConnectionChange(const stringmap& settings)
    : head(replacedHead(settings)),
      replacesGlobal(replacesGlobalSection(settings)),
      newGlobal(newGlobalSection(settings)),
      section(deletes(settings) ? std::string() : newSection(settings)) {}

SecretChange::SecretChange(const stringmap& settings)
    : start(replacedStart(settings)), entry(deletes(settings) ? Base::SecretText() : newSecret(settings)) {}

// A single change goes the way of the single calls, which read the text once and look for one name.
TextPieces changedText(std::string_view oldText, const std::vector<ConnectionChange>& changes) {
  if (changes.size() > 1) {
    return madeInParts<ConnectionBlocks>(oldText, changes);
  }
  const ConnectionChange& change = changes.front();
  TextPieces pieces;
  ConnectionLines lines(change.head, change.replacesGlobal);
  pieces.append(change.newGlobal);
  copyLines(oldText, lines, pieces);
  pieces.append(change.section);
  return pieces;
}

TextPieces changedText(std::string_view oldText, const std::vector<SecretChange>& changes) {
  if (changes.size() > 1) {
    return madeInParts<SecretEntries>(oldText, changes);
  }
  const SecretChange& change = changes.front();
  TextPieces pieces;
  SecretLines lines(change.start);
  copyLines(oldText, lines, pieces);
  pieces.append({change.entry.data(), change.entry.size()});
  return pieces;
}

}  // namespace Ipsec
