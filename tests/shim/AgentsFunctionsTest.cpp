// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// An agent's own C functions with the names of the crypto shim's do not replace the shim's.

#include "tests/support/CryptoCases.h"

#include <dlfcn.h>

extern "C" int agentsCalls();

namespace Ipsec::Testing {
namespace {

constexpr std::array<const char*, 6> names = {"hmac_create", "hmac_init",    "hmac_update",
                                              "hmac_final",  "hmac_cleanup", "EVP_PKEY_get_shared_secret"};

// Without this the other tests could not fail.
TEST(AgentsFunctions, AreWhatALibraryFindsUnderTheirNames) {
  for (const char* name : names) {
    void* const found = dlsym(RTLD_DEFAULT, name);
    ASSERT_NE(found, nullptr) << name;
    Dl_info where = {};
    Dl_info here = {};
    ASSERT_NE(dladdr(found, &where), 0) << name;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&agentsCalls), &here), 0);
    EXPECT_STREQ(where.dli_fname, here.dli_fname) << name;
  }
}

TEST(AgentsFunctions, DoNotComputeTheLibrarysHmac) {
  const int before = agentsCalls();
  const std::size_t blocks = forEachBlock(vectors("hmac.txt"), [](Block& block) {
    const ByteVector key = block.bytes("Key");
    const ByteVector input = block.bytes("Input");
    HmacPRFunc prf;
    ASSERT_TRUE(prf.initHmacPRFunc(hashNamed(block.text("Hash"))));
    ASSERT_TRUE(prf.setKey(&key));
    ByteVector output;
    ASSERT_TRUE(prf.generatePRStream(&input, &output));
    if (block.has("Truncated")) {
      output.resize(block.number("Truncated"));
    }
    EXPECT_EQ(output, block.bytes("Output"));
  });
  EXPECT_EQ(blocks, 76U);
  EXPECT_EQ(agentsCalls(), before);
}

TEST(AgentsFunctions, DoNotComputeTheLibrarysSecrets) {
  const int before = agentsCalls();
  for (const char* file : {"rfc5903.txt", "rfc5114.txt", "dh_modp.txt"}) {
    forEachBlock(vectors(file), [](Block& block) {
      IpsecDHGeneral dh(groupOf(block));
      ASSERT_TRUE(dh.initIpsecDH());
      expectExchange(dh, block.bytes("Private"), block.bytes("Public"), block.bytes("Peer"), block.bytes("Secret"));
    });
  }
  EXPECT_EQ(agentsCalls(), before);
}

}  // namespace
}  // namespace Ipsec::Testing
