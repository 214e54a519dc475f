// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What this program does instead of testing when it starts itself with the name of a role as its first argument. Some
// promises can be tested only in a separate process (the environment, the end of the process, another process's
// memory). Each role is given the arguments after its name and returns the exit code. It is in the file of the tests
// that run it.
#pragma once

#include "tests/platform/Children.h"

namespace Ipsec::Testing {

// TraceHandleTest.cpp
int traceLevels(const Strings&);
int traceMessage(const Strings& arguments);
int traceUntilTheEnd(const Strings&);
int traceFromThreads(const Strings&);
int traceWithoutStandardError(const Strings&);

// TextSinkTest.cpp
int traceIntoAnOwnFile(const Strings& arguments);

// ExhaustedMemoryTest.cpp
int traceWithoutMemory(const Strings&);

// RunTest.cpp
int exchangeStreams(const Strings&);
int writeDescriptor(const Strings& arguments);

// VrfStatusTest.cpp
int readVrf(const Strings& arguments);
int writeVrfs(const Strings& arguments);

}  // namespace Ipsec::Testing
