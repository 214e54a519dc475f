// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The operators new and delete of a test program that has a say in the memory of all its libraries. OperatorNew.cpp
// defines them, and the program defines these two functions.
#pragma once

#include <cstddef>

namespace Ipsec::Testing {

// Returns memory, or null to let the allocation fail. The size may be 0.
void* takeMemory(std::size_t size) noexcept;

// Takes back what takeMemory returned, or null.
void giveMemory(void* memory) noexcept;

}  // namespace Ipsec::Testing
