// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Cipher.h"

#include "Failure.h"

#include <openssl/evp.h>

#include <memory>

namespace Agent {
namespace {

template <auto freeFunction>
struct FreeWith {
  template <class T>
  void operator()(T* handle) const {
    freeFunction(handle);
  }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw Failure(ExitCode::Internal, std::string(what) + " failed");
  }
}

struct CipherRow {
  bool gcm;
  std::size_t keyLen;
  const EVP_CIPHER* (*cipher)();
};

constexpr CipherRow aesCiphers[] = {
    {false, 128, EVP_aes_128_cbc}, {false, 192, EVP_aes_192_cbc}, {false, 256, EVP_aes_256_cbc},
    {true, 128, EVP_aes_128_gcm},  {true, 192, EVP_aes_192_gcm},  {true, 256, EVP_aes_256_gcm},
};

const EVP_CIPHER* cipherOf(const Ipsec::EncryptAlgoWithKeyLen& algo) {
  if (algo.algo == Ipsec::ENCR_3DES) {
    return EVP_des_ede3_cbc();
  }
  for (const CipherRow& row : aesCiphers) {
    if (row.gcm == (algo.algo != Ipsec::ENCR_AES_CBC) && row.keyLen == algo.keyLen) {
      return row.cipher();
    }
  }
  throw Failure(ExitCode::Internal, "no such cipher");
}

int toInt(std::size_t size) {
  require(size <= 0xFFFF, "accepting a packet of this size");
  return static_cast<int>(size);
}

CipherContext startCipher(Direction direction, const EVP_CIPHER* cipher, ByteView key, ByteView iv) {
  CipherContext context(EVP_CIPHER_CTX_new());
  require(context != nullptr, "setting up a cipher");
  const int encrypt = direction == Direction::Encrypt ? 1 : 0;
  require(EVP_CipherInit_ex2(context.get(), cipher, nullptr, nullptr, encrypt, nullptr) == 1, "setting up a cipher");
  require(static_cast<int>(key.size()) == EVP_CIPHER_CTX_get_key_length(context.get()), "keying a cipher");
  require(static_cast<int>(iv.size()) == EVP_CIPHER_CTX_get_iv_length(context.get()), "keying a cipher");
  require(EVP_CipherInit_ex2(context.get(), nullptr, key.data(), iv.data(), encrypt, nullptr) == 1, "keying a cipher");
  return context;
}

// Gives the cipher what is authenticated but not encrypted, then turns input into output of the same length.
ByteVector gcmUpdate(EVP_CIPHER_CTX* context, ByteView front, ByteView input) {
  int written = 0;
  require(EVP_CipherUpdate(context, nullptr, &written, front.data(), toInt(front.size())) == 1, "authenticating");
  ByteVector output(input.size());
  // A null input would finish the computation.
  if (!input.empty()) {
    require(EVP_CipherUpdate(context, output.data(), &written, input.data(), toInt(input.size())) == 1, "encrypting");
  }
  return output;
}

ByteVector gcmSeal(const EVP_CIPHER* cipher, ByteView key, ByteView nonce, ByteView front, ByteView plaintext,
                   std::size_t icvLen) {
  const CipherContext context = startCipher(Direction::Encrypt, cipher, key, nonce);
  ByteVector output = gcmUpdate(context.get(), front, plaintext);
  int written = 0;
  ByteVector icv(icvLen);
  require(EVP_CipherFinal_ex(context.get(), icv.data(), &written) == 1, "encrypting");
  require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, toInt(icvLen), icv.data()) == 1, "encrypting");
  output.insert(output.end(), icv.begin(), icv.end());
  return output;
}

std::optional<ByteVector> gcmOpen(const EVP_CIPHER* cipher, ByteView key, ByteView nonce, ByteView front,
                                  ByteView ciphertext, ByteView icv) {
  const CipherContext context = startCipher(Direction::Decrypt, cipher, key, nonce);
  ByteVector expected = toVector(icv);
  require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, toInt(icv.size()), expected.data()) == 1,
          "setting the ICV");
  ByteVector output = gcmUpdate(context.get(), front, ciphertext);
  int written = 0;
  unsigned char nothing[16] = {};
  if (EVP_CipherFinal_ex(context.get(), nothing, &written) != 1) {
    return std::nullopt;
  }
  return output;
}

}  // namespace

ByteVector cbc(Direction direction, const Ipsec::EncryptAlgoWithKeyLen& algo, const ByteVector& key, ByteView iv,
               ByteView blocks) {
  if (algo.algo == Ipsec::ENCR_NULL) {
    return toVector(blocks);
  }
  const CipherContext context = startCipher(direction, cipherOf(algo), key, iv);
  require(EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1, "switching padding off");
  ByteVector output(blocks.size());
  if (blocks.empty()) {
    return output;
  }
  int written = 0;
  require(EVP_CipherUpdate(context.get(), output.data(), &written, blocks.data(), toInt(blocks.size())) == 1,
          "encrypting");
  unsigned char nothing[16] = {};
  require(EVP_CipherFinal_ex(context.get(), nothing, &written) == 1 && written == 0, "encrypting whole blocks");
  return output;
}

ByteVector Sealer::nextIv() {
  const std::uint64_t number = sealed++;
  if (protection.isAead()) {
    return ByteWriter().u64(number).finish();
  }
  return randomBytes(protection.ivLen());
}

ByteVector Sealer::gcmNonce(ByteView iv) const {
  return concat({ByteView(keys.encr.bytes).last(protection.saltLen()), iv});
}

ByteVector Sealer::icv(ByteView front, ByteView ivAndCiphertext) const {
  Secret mac = prf(prfUnder(protection.integ), keys.integ.bytes, {front, ivAndCiphertext});
  mac.bytes.resize(protection.icvLen());
  return std::move(mac.bytes);
}

ByteVector Sealer::seal(ByteView front, ByteView plaintext) {
  const ByteVector iv = nextIv();
  if (protection.isAead()) {
    const ByteView key = ByteView(keys.encr.bytes).first(keys.encr.bytes.size() - protection.saltLen());
    const ByteVector body =
        gcmSeal(cipherOf(protection.encr), key, gcmNonce(iv), front, plaintext, protection.icvLen());
    return concat({iv, body});
  }
  const ByteVector body = concat({iv, cbc(Direction::Encrypt, protection.encr, keys.encr.bytes, iv, plaintext)});
  return concat({body, icv(front, body)});
}

std::optional<ByteVector> Sealer::open(ByteView front, ByteView sealedBytes) const {
  const std::size_t ivLen = protection.ivLen();
  const std::size_t icvLen = protection.icvLen();
  if (sealedBytes.size() < ivLen + icvLen) {
    return std::nullopt;
  }
  const ByteView iv = sealedBytes.first(ivLen);
  const ByteView body = sealedBytes.first(sealedBytes.size() - icvLen);
  const ByteView ciphertext = body.subspan(ivLen);
  const ByteView check = sealedBytes.last(icvLen);
  if (ciphertext.size() % protection.blockSize() != 0) {
    return std::nullopt;
  }
  if (protection.isAead()) {
    const ByteView key = ByteView(keys.encr.bytes).first(keys.encr.bytes.size() - protection.saltLen());
    return gcmOpen(cipherOf(protection.encr), key, gcmNonce(iv), front, ciphertext, check);
  }
  if (!equal(icv(front, body), check)) {
    return std::nullopt;
  }
  return cbc(Direction::Decrypt, protection.encr, keys.encr.bytes, iv, ciphertext);
}

ByteVector hash(Ipsec::HashAlgorithm algo, std::initializer_list<ByteView> parts) {
  const EVP_MD* digest = algo == Ipsec::HASH_SHA1     ? EVP_sha1()
                         : algo == Ipsec::HASH_SHA256 ? EVP_sha256()
                         : algo == Ipsec::HASH_SHA384 ? EVP_sha384()
                                                      : EVP_sha512();
  const DigestContext context(EVP_MD_CTX_new());
  require(context != nullptr && EVP_DigestInit_ex(context.get(), digest, nullptr) == 1, "setting up a hash");
  for (const ByteView part : parts) {
    require(EVP_DigestUpdate(context.get(), part.data(), part.size()) == 1, "hashing");
  }
  ByteVector output(static_cast<std::size_t>(EVP_MD_get_size(digest)));
  require(EVP_DigestFinal_ex(context.get(), output.data(), nullptr) == 1, "hashing");
  return output;
}

bool equal(ByteView left, ByteView right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

}  // namespace Agent
