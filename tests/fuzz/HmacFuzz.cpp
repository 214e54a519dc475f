// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// HMAC in pieces against OpenSSL's HMAC at once. An input is a digest, a key, and steps: absorb a piece, finish, set
// another key, set the same key again, or change the bytes of the key, which takes effect after the next output.
#include "tests/fuzz/KeyInput.h"

namespace {

using namespace Ipsec;
using namespace Ipsec::Testing;

// What an HmacPRFunc is to do, with all input kept until the output.
struct Model {
  const EVP_MD* digest;
  ByteVector key;      // as it was when it was set or read again
  ByteVector pending;  // absorbed since

  void setKey(const ByteVector& bytes) {
    key = bytes;
    pending.clear();
  }
  void absorb(const ByteVector& piece) { pending.insert(pending.end(), piece.begin(), piece.end()); }
};

void finish(HmacPRFunc& prf, Model& model, const ByteVector& last, const ByteVector& keyBytes, ByteVector* output) {
  model.absorb(last);
  require(prf.generatePRStream(&last, output), "an output fails");
  require(*output == hmacAtOnce(model.digest, model.key, model.pending), "HMAC in pieces is not HMAC at once");
  model.setKey(keyBytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const DigestChoice& digest = digestFrom(input);
  ByteVector key = stringFrom(input);
  HmacPRFunc prf;
  require(prf.initHmacPRFunc(digest.number) && prf.setKey(&key), "a key is refused");
  Model model = {digest.digest(), key, {}};
  ByteVector output;
  while (!input.atEnd()) {
    const unsigned step = input.u8() % 8;
    if (step == 0) {
      key = stringFrom(input);
      require(prf.setKey(&key), "another key is refused");
      model.setKey(key);
    } else if (step == 1) {
      require(prf.setKey(nullptr), "the same key is refused");
      model.setKey(key);
    } else if (step == 2) {
      key = stringFrom(input);
    } else if (step < 6) {
      const ByteVector piece = stringFrom(input);
      require(prf.generatePRStream(&piece, nullptr), "a piece is refused");
      model.absorb(piece);
    } else {
      finish(prf, model, stringFrom(input), key, &output);
    }
  }
  finish(prf, model, {}, key, &output);
  require(output.size() == prf.getOutputSize(), "an output has another size than the digest");
  return 0;
}
