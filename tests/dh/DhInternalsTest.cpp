// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The group tables and the file-local functions of the Diffie-Hellman source, which is part of this program.

#include "src/AlgorithmTables.h"
#include "src/IpsecDH.cpp"  // NOLINT(bugprone-suspicious-include): for its file-local functions
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace Ipsec {
namespace {

using Testing::TraceRecorder;
using Lines = std::vector<std::string>;

void expectErrors(TraceRecorder& traces, const Lines& lines) {
  EXPECT_EQ(traces.errors(), lines);
  EXPECT_EQ(traces.text(0), lines);
  traces.clear();
}

template <class Key, class Value, std::size_t rowCount>
std::map<Key, Value> sorted(const TableRow<Key, Value> (&rows)[rowCount]) {
  std::map<Key, Value> all;
  for (const TableRow<Key, Value>& row : rows) {
    EXPECT_TRUE(all.emplace(row.key, row.value).second) << row.key << " stands twice";
  }
  return all;
}

// --- Tables ----------------------------------------------------------------------------------------------------------

// Every number up to 100, which goes well beyond the table.
std::vector<DhGroupNum> numbers() {
  std::vector<DhGroupNum> all;
  for (std::uint32_t number = 0; number <= 100; ++number) {
    all.push_back(static_cast<DhGroupNum>(number));
  }
  return all;
}

TEST(DhInternals, SizesOfPublicValues) {
  const std::map<DhGroupNum, std::uint64_t> expected = {
      {MODP_768, 96},   {MODP_1024, 128}, {MODP_1536, 192}, {MODP_2048, 256}, {MODP_3072, 384},     {MODP_4096, 512},
      {MODP_6144, 768}, {ECP_256, 64},    {ECP_384, 96},    {ECP_521, 132},   {MODP_2048_256, 256},
  };
  for (const DhGroupNum number : numbers()) {
    const auto row = expected.find(number);
    EXPECT_EQ(dhGroupToSize(number), row == expected.end() ? 0 : row->second) << number;
    EXPECT_EQ(findGroup(number) != nullptr, row != expected.end()) << number;
  }
  EXPECT_EQ(groups.size(), expected.size());
}

TEST(DhInternals, PrimesOfGroups) {
  const std::map<DhGroupNum, PrimeGetter> expected = {
      {MODP_768, BN_get_rfc2409_prime_768},   {MODP_1024, BN_get_rfc2409_prime_1024},
      {MODP_1536, BN_get_rfc3526_prime_1536}, {MODP_2048, BN_get_rfc3526_prime_2048},
      {MODP_3072, BN_get_rfc3526_prime_3072}, {MODP_4096, BN_get_rfc3526_prime_4096},
      {MODP_6144, BN_get_rfc3526_prime_6144},
  };
  for (const DhGroupNum number : numbers()) {
    const auto row = expected.find(number);
    if (row == expected.end()) {
      EXPECT_THROW((void)dhGroupToPrime(number), std::out_of_range) << number;
      continue;
    }
    EXPECT_EQ(dhGroupToPrime(number), row->second) << number;
    const PublicBn prime(row->second(nullptr));
    EXPECT_EQ(static_cast<std::uint64_t>(BN_num_bytes(prime.get())), dhGroupToSize(number)) << number;
  }
}

TEST(DhInternals, CurvesOfGroups) {
  const std::map<DhGroupNum, int> expected = {{ECP_256, 415}, {ECP_384, 715}, {ECP_521, 716}};
  for (const Group& group : groups) {
    const auto row = expected.find(group.number);
    EXPECT_EQ(group.curve, row == expected.end() ? 0 : row->second) << group.number;
    EXPECT_EQ(group.isModp(), row == expected.end()) << group.number;
  }
}

TEST(DhInternals, AlgorithmTables) {
  EXPECT_EQ(sorted(integAlgoToPrfType), (std::map<IntegrityAlgo, PrfType>{
                                            {static_cast<IntegrityAlgo>(2), static_cast<PrfType>(2)},
                                            {static_cast<IntegrityAlgo>(12), static_cast<PrfType>(5)},
                                            {static_cast<IntegrityAlgo>(13), static_cast<PrfType>(6)},
                                            {static_cast<IntegrityAlgo>(14), static_cast<PrfType>(7)},
                                        }));
  EXPECT_EQ(sorted(prfTypeToHashAlgo), (std::map<PrfType, HashAlgorithm>{
                                           {static_cast<PrfType>(2), static_cast<HashAlgorithm>(1)},
                                           {static_cast<PrfType>(5), static_cast<HashAlgorithm>(2)},
                                           {static_cast<PrfType>(6), static_cast<HashAlgorithm>(3)},
                                           {static_cast<PrfType>(7), static_cast<HashAlgorithm>(4)},
                                       }));
  EXPECT_EQ(sorted(integAlgoToKeyBits), (std::map<IntegrityAlgo, std::int32_t>{
                                            {static_cast<IntegrityAlgo>(2), 160},
                                            {static_cast<IntegrityAlgo>(12), 256},
                                            {static_cast<IntegrityAlgo>(13), 384},
                                            {static_cast<IntegrityAlgo>(14), 512},
                                        }));
  EXPECT_EQ(sorted(encryptAlgoToKeyBits),
            (std::map<EncryptionAlgo, std::int32_t>{{static_cast<EncryptionAlgo>(3), 192}}));
  ASSERT_EQ(std::size(hashAlgoToName), 4U);
  EXPECT_STREQ(checkedAt(hashAlgoToName, HASH_SHA1), "sha1");
  EXPECT_STREQ(checkedAt(hashAlgoToName, HASH_SHA256), "sha256");
  EXPECT_STREQ(checkedAt(hashAlgoToName, HASH_SHA384), "sha384");
  EXPECT_STREQ(checkedAt(hashAlgoToName, HASH_SHA512), "sha512");
}

TEST(DhInternals, CheckedLookupThrowsItsOwnText) {
  try {
    (void)dhGroupToPrime(ECP_256);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "_Map_base::at");
  }
  try {
    (void)checkedAt(integAlgoToKeyBits, static_cast<IntegrityAlgo>(1));
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "_Map_base::at");
  }
}

// --- The check of a peer's value -------------------------------------------------------------------------------------

TEST(DhInternals, ValuesOfTheRightLengthPassWhateverTheyHold) {
  TraceRecorder traces("IpsecKeyGen=0");
  for (const Group& group : groups) {
    for (const unsigned char fill : ByteVector{0x00, 0xFF}) {
      const ByteVector value(group.publicBytes, fill);
      EXPECT_TRUE(verifyDHValue(group.number, &value)) << group.number;
    }
  }
  expectErrors(traces, {});
}

TEST(DhInternals, OtherLengthsAreRefusedWithBothLengths) {
  TraceRecorder traces("IpsecKeyGen=0");
  for (const Group& group : groups) {
    const std::size_t size = group.publicBytes;
    for (const std::size_t wrong : {std::size_t{0}, std::size_t{1}, size - 1, size + 1, 2 * size}) {
      const ByteVector value(wrong, 0);
      EXPECT_FALSE(verifyDHValue(group.number, &value));
      expectErrors(traces,
                   {"verifyDHValue Invalid DH public value size " + std::to_string(wrong) + " for the DH group " +
                    std::to_string(group.number) + " with size " + std::to_string(size)});
    }
  }
}

// The whole number counts: one whose lowest bits are those of a supported group is not that group.
TEST(DhInternals, ExactlyTheGroupsOfTheTableAreSupported) {
  TraceRecorder traces("IpsecKeyGen=0");
  std::vector<std::uint32_t> numbers = {65550, 0x80000000U, 0xFFFFFFFFU};
  for (std::uint32_t n = 0; n < 300; ++n) {
    numbers.push_back(n);
  }
  for (const std::uint32_t number : numbers) {
    const auto group = static_cast<DhGroupNum>(number);
    const Group* const found = findGroup(group);
    const ByteVector value(found == nullptr ? 256 : found->publicBytes, 1);
    EXPECT_EQ(verifyDHValue(group, &value), found != nullptr) << number;
    expectErrors(traces, found != nullptr ? Lines{} : Lines{"verifyDHValue Unsupported group number"});
  }
}

TEST(DhInternals, CheckTracesItsGroupAtLevel4) {
  TraceRecorder traces("IpsecKeyGen=4");
  const ByteVector value(256, 0);
  EXPECT_TRUE(verifyDHValue(MODP_2048, &value));
  EXPECT_FALSE(verifyDHValue(static_cast<DhGroupNum>(25), &value));
  EXPECT_EQ(traces.text(), (Lines{"verifyDHValue: DH group: 14", "verifyDHValue: DH group: 25"}));
  EXPECT_EQ(traces.text(4).size(), 2U);
}

// --- Points ----------------------------------------------------------------------------------------------------------

struct Curve {
  explicit Curve(int nid) : group(EC_GROUP_new_by_curve_name(nid)), point(EC_POINT_new(group.get())) {}

  Base::CurvePtr group;
  PointPtr point;
};

// The point with x = 0 that each of the curves has.
Curve pointAtZero(int nid) {
  Curve curve(nid);
  const PublicBn zero(BN_new());
  EXPECT_EQ(EC_POINT_set_compressed_coordinates(curve.group.get(), curve.point.get(), zero.get(), 0, nullptr), 1);
  return curve;
}

// Kept: a number that is zero is not written, and says so.
TEST(DhInternals, PointWithAZeroCoordinateIsNotWritten) {
  for (const int nid : {415, 715, 716}) {
    const Curve curve = pointAtZero(nid);
    TraceRecorder traces("IpsecKeyGen=0");
    ByteVector out = {1};
    EXPECT_FALSE(ecpToVector(curve.group.get(), curve.point.get(), &out));
    expectErrors(traces, {"ecpToVector bnCat failed"});
    EXPECT_EQ(out.size(), static_cast<std::size_t>(2 * fieldLength(curve.group.get())));
  }
}

TEST(DhInternals, PointWithAZeroCoordinateIsRead) {
  for (const int nid : {415, 715, 716}) {
    Curve curve = pointAtZero(nid);
    const PublicBn y(BN_new());
    ASSERT_EQ(EC_POINT_get_affine_coordinates(curve.group.get(), curve.point.get(), nullptr, y.get(), nullptr), 1);
    const int half = fieldLength(curve.group.get());
    ByteVector value(static_cast<std::size_t>(2 * half), 0);
    ASSERT_EQ(BN_bn2binpad(y.get(), value.data() + half, half), half);
    const PointPtr read(EC_POINT_new(curve.group.get()));
    EXPECT_TRUE(vectorToEcp(curve.group.get(), &value, read.get()));
    EXPECT_EQ(EC_POINT_cmp(curve.group.get(), curve.point.get(), read.get(), nullptr), 0);
  }
}

TEST(DhInternals, PointAtInfinityHasNoCoordinates) {
  for (const int nid : {415, 715, 716}) {
    const Curve curve(nid);
    ASSERT_EQ(EC_POINT_set_to_infinity(curve.group.get(), curve.point.get()), 1);
    TraceRecorder traces("IpsecKeyGen=0");
    ByteVector out = {1, 2, 3};
    EXPECT_FALSE(ecpToVector(curve.group.get(), curve.point.get(), &out));
    expectErrors(traces, {"ecpToVector EC_POINT_get_affine_coordinates failed"});
    EXPECT_EQ(out, (ByteVector{1, 2, 3}));
  }
}

TEST(DhInternals, GeneratorSurvivesWritingAndReading) {
  for (const int nid : {415, 715, 716}) {
    const Curve curve(nid);
    const EC_POINT* const generator = EC_GROUP_get0_generator(curve.group.get());
    ByteVector out(500, 0xEE);
    ASSERT_TRUE(ecpToVector(curve.group.get(), generator, &out));
    EXPECT_EQ(out.size(), static_cast<std::size_t>(2 * fieldLength(curve.group.get())));
    ASSERT_TRUE(vectorToEcp(curve.group.get(), &out, curve.point.get()));
    EXPECT_EQ(EC_POINT_cmp(curve.group.get(), generator, curve.point.get(), nullptr), 0);
  }
}

TEST(DhInternals, FieldLengthsAreRoundedUpToBytes) {
  EXPECT_EQ(fieldLength(Curve(NID_X9_62_prime256v1).group.get()), 32);
  EXPECT_EQ(fieldLength(Curve(NID_secp384r1).group.get()), 48);
  EXPECT_EQ(fieldLength(Curve(NID_secp521r1).group.get()), 66);
}

TEST(DhInternals, OddLengthIsNotSplit) {
  const Curve curve(NID_X9_62_prime256v1);
  TraceRecorder traces("IpsecKeyGen=0");
  for (const std::size_t size : {1U, 63U, 65U}) {
    const ByteVector value(size, 1);
    EXPECT_FALSE(vectorToEcp(curve.group.get(), &value, curve.point.get()));
    expectErrors(traces, {"vectorToEcp bnSplit failed"});
  }
}

// The caller checks the length: halves of any length are read as numbers.
TEST(DhInternals, HalvesOfAnotherLengthAreReadAsNumbers) {
  const Curve curve(NID_X9_62_prime256v1);
  ByteVector value;
  ASSERT_TRUE(ecpToVector(curve.group.get(), EC_GROUP_get0_generator(curve.group.get()), &value));
  value.insert(value.begin() + 32, 0);
  value.insert(value.begin(), 0);
  EXPECT_TRUE(vectorToEcp(curve.group.get(), &value, curve.point.get()));
  EXPECT_EQ(EC_POINT_cmp(curve.group.get(), EC_GROUP_get0_generator(curve.group.get()), curve.point.get(), nullptr), 0);
}

TEST(DhInternals, ValueOffTheCurveIsRefused) {
  for (const int nid : {415, 715, 716}) {
    const Curve curve(nid);
    for (const unsigned char fill : ByteVector{0x00, 0x01, 0xFF}) {
      const ByteVector value(static_cast<std::size_t>(2 * fieldLength(curve.group.get())), fill);
      TraceRecorder traces("IpsecKeyGen=0");
      EXPECT_FALSE(vectorToEcp(curve.group.get(), &value, curve.point.get()));
      EXPECT_EQ(traces.errors().size(), 1U);
      EXPECT_EQ(traces.errors()[0].rfind("vectorToEcp EC_POINT_", 0), 0U);
    }
  }
}

TEST(DhInternals, NumbersAreRightAlignedInTheirHalves) {
  const PublicBn x(BN_new());
  const PublicBn y(BN_new());
  ASSERT_EQ(BN_set_word(x.get(), 0x0102), 1);
  ASSERT_EQ(BN_set_word(y.get(), 0x03), 1);
  ByteVector out(8, 0);
  EXPECT_TRUE(bnCat(x.get(), y.get(), 4, &out));
  EXPECT_EQ(out, (ByteVector{0, 0, 1, 2, 0, 0, 0, 3}));
  ASSERT_TRUE(bnSplit({0, 5, 6, 0}, x.get(), y.get()));
  EXPECT_EQ(BN_get_word(x.get()), 5U);
  EXPECT_EQ(BN_get_word(y.get()), 0x0600U);
  ASSERT_TRUE(bnSplit({}, x.get(), y.get()));
  EXPECT_TRUE(BN_is_zero(x.get()));
}

}  // namespace
}  // namespace Ipsec
