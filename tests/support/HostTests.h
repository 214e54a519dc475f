// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The main function of test programs that work on the host's real paths.
//
//   int main(int argc, char** argv) { return Ipsec::Testing::runInPrivateMounts(argc, argv); }
#pragma once

namespace Ipsec::Testing {

// Runs all tests behind private mounts (see PrivateMounts.h), and fails if a file of the machine itself was changed. If
// the machine does not allow such mounts, says so in one line and runs nothing. Returns 77 then, or 1 if the
// environment variable CI is set.
int runInPrivateMounts(int argc, char** argv);

}  // namespace Ipsec::Testing
