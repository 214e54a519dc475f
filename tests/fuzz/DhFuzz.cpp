// Gives peers' public values and private keys to every group. What the library accepts must give a secret of the
// group's length, and nothing may crash or leak.
#include "Ipsec.h"

#include <array>
#include <cstdint>
#include <cstdlib>

namespace {

struct Group {
  Ipsec::DhGroupNum number;
  std::size_t publicBytes;
  std::size_t secretBytes;
};

constexpr std::array<Group, 5> groups = {{
    {Ipsec::MODP_768, 96, 96},
    {Ipsec::MODP_2048_256, 256, 256},
    {Ipsec::ECP_256, 64, 32},
    {Ipsec::ECP_384, 96, 48},
    {Ipsec::ECP_521, 132, 66},
}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const Group& group = groups[data[0] % groups.size()];
  const bool importsKey = (data[1] & 1) != 0;
  const bool fillsUp = (data[1] & 2) != 0;
  Ipsec::ByteVector input(data + 2, data + size);

  Ipsec::IpsecDHGeneral exchange(group.number);
  if (!exchange.initIpsecDH()) {
    return 0;
  }
  if (importsKey) {
    (void)exchange.setMyPrivateKey(&input);
  }
  if (fillsUp) {
    input.resize(group.publicBytes);
  }
  Ipsec::ByteVector secret;
  if (exchange.setPeerPublicKey(&input) && (!exchange.getSharedSecret(&secret) || secret.size() != group.secretBytes)) {
    std::abort();
  }
  return 0;
}
