// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Curves.h"

#include "base/MadeOnce.h"
#include "base/PublicValue.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace Ipsec {

using Base::CurvePtr;
using Base::into;
using Base::KeyContextPtr;
using Base::KeyPtr;
using Base::MadeOnce;
using Base::triedPublicValue;

namespace {

constexpr std::size_t longestPoint = std::size_t{2} * 66;  // x | y of group 21

// The parts of a curve that take long to build. Without sharing them, group 19 would spend a quarter of a whole
// exchange on building the curve by its name and on generating a key by that name.
struct SharedCurve {
  MadeOnce<CurvePtr> curve;
  MadeOnce<KeyPtr> parameters;
};

std::array<SharedCurve, groups.size()> sharedCurves;  // one for each row of the groups; those of MODP groups stay empty

SharedCurve& sharedCurve(const Group& group) {
  return sharedCurves[static_cast<std::size_t>(&group - groups.data())];
}

KeyPtr newCurveParameters(const Group& group) {
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  KeyPtr parameters;
  if (!context || EVP_PKEY_paramgen_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_group_name(context.get(), OBJ_nid2sn(group.curve)) != 1 ||
      EVP_PKEY_paramgen(context.get(), into(parameters)) != 1) {
    return nullptr;
  }
  return parameters;
}

EVP_PKEY* curveParameters(const Group& group) {
  return sharedCurve(group).parameters.get([&group] { return newCurveParameters(group); });
}

}  // namespace

CurvePtr newCurve(const Group& group) {
  const auto create = [&group] { return CurvePtr(EC_GROUP_new_by_curve_name(group.curve)); };
  const EC_GROUP* const curve = sharedCurve(group).curve.get(create);
  return CurvePtr(curve == nullptr ? nullptr : EC_GROUP_dup(curve));
}

KeyPtr newCurveKey(const Group& group) {
  EVP_PKEY* const parameters = curveParameters(group);
  if (parameters == nullptr) {
    return nullptr;
  }
  const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, parameters, nullptr));
  KeyPtr key;
  if (!context || EVP_PKEY_keygen_init(context.get()) != 1 || EVP_PKEY_generate(context.get(), into(key)) != 1) {
    return nullptr;
  }
  return key;
}

KeyPtr newPeerKey(const EC_GROUP* curve, const ByteVector& value) {
  const int name = EC_GROUP_get_curve_name(curve);
  const auto* group =
      std::find_if(groups.begin(), groups.end(), [name](const Group& row) { return row.curve == name; });
  std::array<unsigned char, 1 + longestPoint> encoded;
  if (group == groups.end() || group->isModp() || value.size() != group->publicBytes) {
    return nullptr;
  }
  encoded[0] = POINT_CONVERSION_UNCOMPRESSED;
  std::copy(value.begin(), value.end(), encoded.begin() + 1);
  const EVP_PKEY* const parameters = curveParameters(*group);
  return parameters == nullptr ? nullptr : triedPublicValue(parameters, encoded.data(), 1 + value.size());
}

int fieldLength(const EC_GROUP* curve) {
  return (EC_GROUP_get_degree(curve) + 7) / 8;
}

}  // namespace Ipsec
