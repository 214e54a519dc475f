// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The promises of the stand-in platform, on which the library and the other tests rely. There is one file per subject.

#include "tests/platform/Roles.h"

#include <string_view>

namespace Ipsec::Testing {
namespace {

struct Role {
  const char* name;
  int (*play)(const Strings& arguments);
};

constexpr Role roles[] = {
    {"trace-levels", traceLevels},
    {"trace-message", traceMessage},
    {"trace-until-the-end", traceUntilTheEnd},
    {"trace-without-memory", traceWithoutMemory},
    {"trace-from-threads", traceFromThreads},
    {"trace-without-standard-error", traceWithoutStandardError},
    {"trace-into-an-own-file", traceIntoAnOwnFile},
    {"exchange-streams", exchangeStreams},
    {"write-descriptor", writeDescriptor},
    {"read-vrf", readVrf},
    {"write-vrfs", writeVrfs},
};

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  using namespace Ipsec::Testing;
  for (const Role& role : roles) {
    if (argc > 1 && std::string_view(argv[1]) == role.name) {
      return role.play(Strings(argv + 2, argv + argc));
    }
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
