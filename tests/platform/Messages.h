// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Texts of exceptions.
#pragma once

#include <exception>
#include <functional>
#include <string>

namespace Ipsec::Testing {

// Returns the text of the exception that the call throws.
inline std::string messageOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& exception) {
    return exception.what();
  }
  return "nothing thrown";
}

}  // namespace Ipsec::Testing
