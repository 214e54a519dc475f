// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What a check of one setting finds.
#pragma once

#include <string_view>

namespace Ipsec {

// A finding is a sentence about what is wrong, or no sentence. It may name the known word that a mistake resembles.
struct Finding {
  const char* text = nullptr;
  std::string_view resembles = {};

  explicit operator bool() const noexcept { return text != nullptr; }
};

}  // namespace Ipsec
