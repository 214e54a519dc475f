// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/Framework.h"

#include <cstdarg>
#include <cstdio>

namespace Vello {

RangeException::~RangeException() = default;
CorruptionDetectedException::~CorruptionDetectedException() = default;

}  // namespace Vello

namespace Cor {

String _fmt(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  if (length < 0) {
    throw std::invalid_argument("Cor::_fmt: printf refuses the format");
  }

  std::string text(static_cast<std::size_t>(length), '\0');
  va_start(arguments, format);
  (void)std::vsnprintf(text.data(), text.size() + 1, format, arguments);  // it fits: the length was computed above
  va_end(arguments);
  return {std::move(text)};
}

}  // namespace Cor
