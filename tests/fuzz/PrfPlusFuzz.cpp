// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// prf+ in draws against the whole stream at once, with the counter (RFC 7296 section 2.13) and without it (RFC 2409
// section 5.5), over HMAC and over a function with any length of output. An input is the function, a key, a seed and
// the lengths of the draws.
#include "tests/fuzz/KeyInput.h"

#include <functional>
#include <memory>

namespace {

using namespace Ipsec;
using namespace Ipsec::Testing;

using AtOnce = std::function<ByteVector(const ByteVector&)>;

// A function of no cryptographic worth whose output has any length.
class AnyLength : public PRFunc {
 public:
  explicit AnyLength(std::size_t outputSize) : length(outputSize) {}

  static ByteVector atOnce(std::size_t length, const ByteVector& data) {
    std::uint32_t state = 0x811C9DC5;
    for (const unsigned char byte : data) {
      state = (state ^ byte) * 0x01000193;
    }
    ByteVector out(length);
    for (unsigned char& byte : out) {
      state = state * 1664525 + 1013904223;
      byte = static_cast<unsigned char>(state >> 24);
    }
    return out;
  }

  bool generatePRStream(const ByteVector* input, ByteVector* output) override {
    pending.insert(pending.end(), input->begin(), input->end());
    if (output != nullptr) {
      *output = atOnce(length, pending);
      pending.clear();
    }
    return true;
  }
  std::size_t getOutputSize() override { return length; }
  std::size_t getKeySize() override { return length; }
  bool setKey(const ByteVector*) override { return true; }

 private:
  std::size_t length;
  ByteVector pending;
};

// Returns that many bytes of T1 | T2 | ...
ByteVector wholeStream(const AtOnce& prf, const ByteVector& seed, bool counted, std::size_t length) {
  ByteVector stream;
  ByteVector block;
  for (unsigned number = 1; stream.size() < length; ++number) {
    ByteVector data = block;
    data.insert(data.end(), seed.begin(), seed.end());
    if (counted) {
      data.push_back(static_cast<unsigned char>(number));  // it wraps to 0 after block 255
    }
    block = prf(data);
    stream.insert(stream.end(), block.begin(), block.end());
  }
  stream.resize(length);
  return stream;
}

void compareDraws(PRFunc& prf, const AtOnce& atOnce, bool counted, FuzzInput& input) {
  const ByteVector seed = stringFrom(input);
  PRFuncPlus stream(&prf, counted);
  require(stream.initPRFuncPlus(&seed), "a stream cannot begin");
  ByteVector all;
  while (!input.atEnd() && all.size() < 20000) {
    const unsigned choice = input.u8();
    const std::size_t length = choice < 200 ? choice : input.u16() % 8192;
    ByteVector drawn(7);
    require(stream.generatePRStream(length, &drawn), "a draw fails");
    require(drawn.size() == length, "a draw has another length");
    all.insert(all.end(), drawn.begin(), drawn.end());
  }
  require(all == wholeStream(atOnce, seed, counted, all.size()), "the draws are not the stream");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const bool counted = input.u8() % 2 == 0;
  const unsigned kind = input.u8();
  if (kind >= 128) {
    const std::size_t length = kind - 127;
    AnyLength prf(length);
    const auto atOnce = [length](const ByteVector& bytes) { return AnyLength::atOnce(length, bytes); };
    compareDraws(prf, atOnce, counted, input);
    return 0;
  }
  const DigestChoice& digest = digestFrom(input);
  const ByteVector key = stringFrom(input);
  HmacPRFunc prf;
  require(prf.initHmacPRFunc(digest.number) && prf.setKey(&key), "a key is refused");
  const auto atOnce = [&](const ByteVector& bytes) { return hmacAtOnce(digest.digest(), key, bytes); };
  compareDraws(prf, atOnce, counted, input);
  return 0;
}
