#include "WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace Ipsec {

using Base::Descriptor;

namespace {

// Reads up to size bytes. Returns their number, 0 at the end of the file, or -1 for an error.
ssize_t readSome(const Descriptor& file, char* bytes, std::size_t size) noexcept {
  ssize_t count;
  do {
    count = ::read(file.get(), bytes, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

}  // namespace

std::string readLines(const char* path) {
  constexpr std::size_t roomAtLeast = 4096;
  // Kept (unread-is-empty): a file that cannot be opened has no lines. If reading fails, those before that count.
  const Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) {
    return {};
  }
  struct stat status = {};
  (void)fstat(file.get(), &status);  // Only a hint: the file may grow, and some have no size.
  std::string text(static_cast<std::size_t>(status.st_size) + roomAtLeast, '\0');
  std::size_t length = 0;
  ssize_t count;
  while ((count = readSome(file, text.data() + length, text.size() - length)) > 0) {
    length += static_cast<std::size_t>(count);
    if (text.size() - length < roomAtLeast) {
      text.resize(2 * text.size());
    }
  }
  text.resize(length);
  if (count < 0) {
    text.resize(text.rfind('\n') + 1);  // npos + 1 is 0: no whole line.
  }
  return text;
}

// Kept (mode-from-umask): the old file's mode is ignored.
// Kept (stale-file-mode): a temporary file that a failed call left is emptied, and keeps its mode.
Replacement::Replacement(const char* replaced)
    : path(replaced),
      temporaryPath(path + ".tmp"),
      file(::open(temporaryPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
      whole(file.isOpen()) {}

void Replacement::append(std::string_view text) noexcept {
  while (whole && !text.empty()) {
    const ssize_t count = ::write(file.get(), text.data(), text.size());
    if (count > 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else {
      whole = count < 0 && errno == EINTR;
    }
  }
}

// Kept (one-line-for-unwritten): whatever failed since the opening, the caller reports it as a failed rename.
// Kept (stale-file-stays): a temporary file that is not moved is not removed either.
bool Replacement::moveIntoPlace() noexcept {
  return file.close() && whole && std::rename(temporaryPath.c_str(), path.c_str()) == 0;
}

}  // namespace Ipsec
