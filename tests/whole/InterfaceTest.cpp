// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What callers were compiled against: numbers, sizes, fields, virtual slots, exported names, the registered message.

#include "platform/Log.h"
#include "tests/support/CryptoCases.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <type_traits>

namespace Ipsec::Testing {
namespace {

// --- Numbers ---------------------------------------------------------------------------------------------------------

template <class Enumeration, class... Numbers>
constexpr bool areNumbers(std::initializer_list<Enumeration> names, Numbers... numbers) {
  const std::uint32_t expected[] = {static_cast<std::uint32_t>(numbers)...};
  std::size_t i = 0;
  for (const Enumeration name : names) {
    if (static_cast<std::uint32_t>(name) != expected[i++]) {
      return false;
    }
  }
  return i == sizeof...(numbers) && std::is_same_v<std::underlying_type_t<Enumeration>, std::uint32_t>;
}

static_assert(areNumbers({MODP_NONE, MODP_768, MODP_1024, MODP_1536, MODP_2048, MODP_3072, MODP_4096, MODP_6144,
                          ECP_256, ECP_384, ECP_521, MODP_2048_256},
                         0, 1, 2, 5, 14, 15, 16, 17, 19, 20, 21, 24));
static_assert(areNumbers({AUTH_HMAC_SHA1_96, AUTH_HMAC_SHA2_256_128, AUTH_HMAC_SHA2_384_192, AUTH_HMAC_SHA2_512_256}, 2,
                         12, 13, 14));
static_assert(areNumbers({PRF_HMAC_SHA1, PRF_HMAC_SHA2_256, PRF_HMAC_SHA2_384, PRF_HMAC_SHA2_512}, 2, 5, 6, 7));
static_assert(areNumbers({ENCR_3DES, ENCR_NULL, ENCR_AES_CBC, ENCR_AES_GCM_8, ENCR_AES_GCM_12, ENCR_AES_GCM_16}, 3, 11,
                         12, 18, 19, 20));
static_assert(areNumbers({HASH_SHA1, HASH_SHA256, HASH_SHA384, HASH_SHA512}, 1, 2, 3, 4));

// --- Sizes and copies ------------------------------------------------------------------------------------------------

static_assert(std::is_same_v<ByteVector, std::vector<unsigned char>>);
static_assert(sizeof(EncryptAlgoWithKeyLen) == 16);
static_assert(offsetof(EncryptAlgoWithKeyLen, algo) == 0);
static_assert(offsetof(EncryptAlgoWithKeyLen, keyLen) == 8);
static_assert(sizeof(IpsecDH) == 48);
static_assert(sizeof(IpsecDHModp) == 72);
static_assert(sizeof(IpsecDHEcp) == 72);
static_assert(sizeof(IpsecDHGeneral) == 168);
static_assert(sizeof(PRFunc) == 8);
static_assert(sizeof(HmacPRFunc) == 40);
static_assert(sizeof(PRFuncPlus) == 80);
static_assert(sizeof(NonceGenerator) == 8);

template <class T>
constexpr bool isNeverCopied = !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T> &&
                               !std::is_move_constructible_v<T> && !std::is_move_assignable_v<T>;
static_assert(isNeverCopied<IpsecDHModp> && isNeverCopied<IpsecDHEcp> && isNeverCopied<IpsecDHGeneral>);
static_assert(isNeverCopied<HmacPRFunc> && isNeverCopied<PRFuncPlus>);

static_assert(std::is_abstract_v<IpsecDH> && std::has_virtual_destructor_v<IpsecDH>);
static_assert(std::is_abstract_v<PRFunc> && std::has_virtual_destructor_v<PRFunc>);
static_assert(!std::is_polymorphic_v<IpsecDHGeneral> && !std::is_base_of_v<IpsecDH, IpsecDHGeneral>);
static_assert(!std::is_polymorphic_v<PRFuncPlus> && !std::is_polymorphic_v<NonceGenerator>);

// A group's number must not be converted into an object by accident.
static_assert(!std::is_convertible_v<DhGroupNum, IpsecDHGeneral>);

// --- Fields ----------------------------------------------------------------------------------------------------------

template <class T>
T field(const void* object, std::size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const char*>(object) + offset, sizeof value);
  return value;
}

struct OpenDh : IpsecDHModp {
  using IpsecDHModp::IpsecDHModp;
  std::size_t offsetOf(const void* member) const {
    return static_cast<std::size_t>(static_cast<const char*>(member) - reinterpret_cast<const char*>(this));
  }
  std::vector<std::size_t> baseOffsets() const {
    return {offsetOf(&dhGroup), offsetOf(&sharedSecret), offsetOf(&sharedSecretComputed), offsetOf(&initialized)};
  }
};

TEST(Interface, FieldsOfTheBaseStandInTheirOrder) {
  const OpenDh dh(MODP_768);
  EXPECT_EQ(dh.baseOffsets(), (std::vector<std::size_t>{8, 16, 40, 41}));
}

TEST(Interface, FieldsOfTheModpForm) {
  IpsecDHModp dh(MODP_1536);
  EXPECT_EQ(field<std::uint32_t>(&dh, 8), 5U);
  EXPECT_EQ(field<void*>(&dh, 48), nullptr);  // dhKey
  EXPECT_EQ(field<void*>(&dh, 56), nullptr);  // peerPublicValue
  EXPECT_EQ(field<std::int32_t>(&dh, 64), 0);
  EXPECT_FALSE(field<bool>(&dh, 41));
  ASSERT_TRUE(dh.initIpsecDH());
  EXPECT_NE(field<void*>(&dh, 48), nullptr);
  EXPECT_NE(field<void*>(&dh, 56), nullptr);
  EXPECT_EQ(field<std::int32_t>(&dh, 64), 192);
  EXPECT_TRUE(field<bool>(&dh, 41));
  EXPECT_FALSE(field<bool>(&dh, 40));
  const ByteVector own = publicKey(dh);
  ASSERT_TRUE(dh.setPeerPublicKey(&own));
  EXPECT_TRUE(field<bool>(&dh, 40));
  const ByteVector two = {2};
  const void* const before = field<void*>(&dh, 48);
  ASSERT_TRUE(dh.setMyPrivateKey(&two));
  EXPECT_NE(field<void*>(&dh, 48), before);  // only the key was replaced
  EXPECT_FALSE(field<bool>(&dh, 40));
}

TEST(Interface, FieldsOfTheCurveForm) {
  IpsecDHEcp dh(ECP_384);
  EXPECT_EQ(field<std::uint32_t>(&dh, 8), 20U);
  for (const std::size_t offset : {48U, 56U, 64U}) {  // ecKey, ecGroup, peerPoint
    EXPECT_EQ(field<void*>(&dh, offset), nullptr);
  }
  ASSERT_TRUE(dh.initIpsecDH());
  for (const std::size_t offset : {48U, 56U, 64U}) {
    EXPECT_NE(field<void*>(&dh, offset), nullptr);
  }
  const void* const group = field<void*>(&dh, 56);
  const void* const point = field<void*>(&dh, 64);
  const ByteVector own = publicKey(dh);
  const ByteVector two = {2};
  ASSERT_TRUE(dh.setMyPrivateKey(&two));
  ASSERT_TRUE(dh.setPeerPublicKey(&own));
  EXPECT_EQ(field<void*>(&dh, 56), group);
  EXPECT_EQ(field<void*>(&dh, 64), point);  // re-used for every peer
}

TEST(Interface, FieldsOfTheFacade) {
  IpsecDHGeneral dh(MODP_NONE);
  const char* const start = reinterpret_cast<const char*>(&dh);
  EXPECT_EQ(reinterpret_cast<const char*>(&dh.isModp) - start, 4);
  EXPECT_EQ(field<std::uint32_t>(&dh, 0), 0U);
  EXPECT_EQ(field<void*>(&dh, 8), nullptr);
  EXPECT_EQ(field<std::uint32_t>(&dh, 16 + 8), 0U);  // both forms start without a group
  EXPECT_EQ(field<std::uint32_t>(&dh, 88 + 8), 0U);
  for (const std::uint32_t unknown : {0U, 3U, 22U}) {
    EXPECT_TRUE(dh.setDHGroup(static_cast<DhGroupNum>(unknown)));
    EXPECT_FALSE(dh.initIpsecDH());
    EXPECT_EQ(field<void*>(&dh, 8), nullptr);  // nothing chosen
  }
  EXPECT_FALSE(field<bool>(&dh, 160));
  EXPECT_TRUE(dh.setDHGroup(ECP_256));
  ASSERT_TRUE(dh.initIpsecDH());
  EXPECT_EQ(field<const char*>(&dh, 8), start + 88);
  EXPECT_TRUE(field<bool>(&dh, 160));
  EXPECT_FALSE(dh.isModp);

  IpsecDHGeneral modp(MODP_768);
  ASSERT_TRUE(modp.initIpsecDH());
  EXPECT_EQ(field<const char*>(&modp, 8), reinterpret_cast<const char*>(&modp) + 16);
}

TEST(Interface, FieldsOfTheHmacStartZeroed) {
  alignas(HmacPRFunc) unsigned char storage[sizeof(HmacPRFunc)];
  std::memset(storage, 0xEE, sizeof storage);
  auto* const prf = new (storage) HmacPRFunc;
  EXPECT_EQ(field<void*>(prf, 8), nullptr);   // md
  EXPECT_EQ(field<void*>(prf, 16), nullptr);  // the shim's context
  EXPECT_FALSE(field<bool>(prf, 24));         // keySet
  EXPECT_FALSE(field<bool>(prf, 25));         // initialized
  EXPECT_EQ(field<void*>(prf, 32), nullptr);  // key
  const ByteVector key = {1};
  ASSERT_TRUE(prf->initHmacPRFunc(HASH_SHA1));
  EXPECT_TRUE(field<bool>(prf, 25));
  EXPECT_FALSE(field<bool>(prf, 24));
  ASSERT_TRUE(prf->setKey(&key));
  EXPECT_TRUE(field<bool>(prf, 24));
  EXPECT_EQ(field<const void*>(prf, 32), &key);  // borrowed
  prf->~HmacPRFunc();
}

TEST(Interface, FieldsOfTheStream) {
  HmacPRFunc prf;
  const ByteVector key = {1};
  ASSERT_TRUE(prf.initHmacPRFunc(HASH_SHA1));
  ASSERT_TRUE(prf.setKey(&key));
  PRFuncPlus plus(&prf, true);
  EXPECT_EQ(field<const void*>(&plus, 0), &prf);
  EXPECT_EQ(field<std::uint8_t>(&plus, 32), 0);  // counter
  EXPECT_EQ(field<std::size_t>(&plus, 40), 0U);  // bufferPos
  EXPECT_TRUE(field<bool>(&plus, 72));           // counterEnabled
  EXPECT_FALSE(field<bool>(&plus, 73));          // initialized
  ASSERT_TRUE(plus.initPRFuncPlus(&key));
  EXPECT_EQ(field<std::uint8_t>(&plus, 32), 2);
  EXPECT_TRUE(field<bool>(&plus, 73));
  ByteVector out;
  ASSERT_TRUE(plus.generatePRStream(20, &out));
  EXPECT_EQ(field<std::size_t>(&plus, 40), 20U);  // at the end of the block, which stays
  EXPECT_EQ(field<std::uint8_t>(&plus, 32), 2);
  ASSERT_TRUE(plus.generatePRStream(3, &out));
  EXPECT_EQ(field<std::size_t>(&plus, 40), 3U);
  EXPECT_EQ(field<std::uint8_t>(&plus, 32), 3);
}

// --- Virtual slots ---------------------------------------------------------------------------------------------------

// The Itanium ABI holds a pointer to a virtual function as 1 + its offset in the table.
template <class Function>
std::size_t slot(Function function) {
  std::size_t word;
  std::memcpy(&word, &function, sizeof word);
  EXPECT_EQ(word % 2, 1U) << "not virtual";
  return (word - 1) / sizeof(void*);
}

template <class Function>
bool isVirtual(Function function) {
  std::size_t word;
  std::memcpy(&word, &function, sizeof word);
  return word % 2 == 1;
}

std::string demangled(const char* name) {
  const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name, nullptr, nullptr, nullptr), std::free);
  return text ? text.get() : name;
}

std::vector<std::string> slotsOf(const void* object, std::size_t count) {
  std::vector<std::string> names;
  void* const* const table = field<void* const*>(object, 0);
  for (std::size_t i = 0; i < count; ++i) {
    Dl_info info = {};
    const bool found = dladdr(table[i], &info) != 0 && info.dli_sname != nullptr;
    names.push_back(found ? demangled(info.dli_sname) : "unknown");
  }
  return names;
}

TEST(Interface, SlotsOfTheDhObject) {
  EXPECT_EQ(slot(&IpsecDH::getMyPublicKey), 0U);
  EXPECT_EQ(slot(&IpsecDH::getMyPrivateKey), 1U);
  EXPECT_EQ(slot(&IpsecDH::setMyPrivateKey), 2U);
  EXPECT_EQ(slot(&IpsecDH::setPeerPublicKey), 3U);
  EXPECT_EQ(slot(&IpsecDH::getSharedSecret), 4U);
  EXPECT_EQ(slot(&IpsecDH::initIpsecDH), 5U);
  EXPECT_FALSE(isVirtual(&IpsecDH::setDHGroup));
}

Lines dhSlots(const std::string& name) {
  const std::string prefix = "Ipsec::" + name + "::";
  const std::string read = "(std::vector<unsigned char, std::allocator<unsigned char> >*)";
  const std::string given = "(std::vector<unsigned char, std::allocator<unsigned char> > const*)";
  return {prefix + "getMyPublicKey" + read,    prefix + "getMyPrivateKey" + read, prefix + "setMyPrivateKey" + given,
          prefix + "setPeerPublicKey" + given, prefix + "getSharedSecret" + read, prefix + "initIpsecDH()",
          prefix + "~" + name + "()",          prefix + "~" + name + "()"};
}

TEST(Interface, TablesOfTheFormsEndWithTheirDestructors) {
  const IpsecDHModp modp(MODP_NONE);
  const IpsecDHEcp ecp(MODP_NONE);
  EXPECT_EQ(slotsOf(&modp, 8), dhSlots("IpsecDHModp"));
  EXPECT_EQ(slotsOf(&ecp, 8), dhSlots("IpsecDHEcp"));
}

TEST(Interface, SlotsOfThePrf) {
  EXPECT_EQ(slot(&PRFunc::generatePRStream), 0U);
  EXPECT_EQ(slot(&PRFunc::getOutputSize), 1U);
  EXPECT_EQ(slot(&PRFunc::getKeySize), 2U);
  EXPECT_EQ(slot(&PRFunc::setKey), 3U);
  EXPECT_FALSE(isVirtual(&HmacPRFunc::initHmacPRFunc));
  const HmacPRFunc prf;
  const std::string vector = "std::vector<unsigned char, std::allocator<unsigned char> >";
  EXPECT_EQ(slotsOf(&prf, 6), (Lines{"Ipsec::HmacPRFunc::generatePRStream(" + vector + " const*, " + vector + "*)",
                                     "Ipsec::HmacPRFunc::getOutputSize()", "Ipsec::HmacPRFunc::getKeySize()",
                                     "Ipsec::HmacPRFunc::setKey(" + vector + " const*)",
                                     "Ipsec::HmacPRFunc::~HmacPRFunc()", "Ipsec::HmacPRFunc::~HmacPRFunc()"}));
}

// An object is destroyed completely through its base class.
TEST(Interface, DeletingThroughTheBaseDestroysTheForm) {
  TraceRecorder traces("IpsecKeyGen=4");
  IpsecDH* const dh = new IpsecDHModp(MODP_768);
  PRFunc* const prf = new HmacPRFunc;
  delete dh;
  delete prf;
  EXPECT_EQ(traces.text(), (Lines{"~IpsecDHModp: ", "~HmacPRFunc: "}));
}

// --- Exported names --------------------------------------------------------------------------------------------------

std::string output(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string text;
  char bytes[4096];
  while (pipe && std::fgets(bytes, sizeof bytes, pipe.get()) != nullptr) {
    text += bytes;
  }
  return text;
}

std::set<std::string> exportedNames() {
  std::istringstream lines(output("nm -D --defined-only -C '" IPSEC_LIBRARY "'"));
  std::set<std::string> names;
  for (std::string line; std::getline(lines, line);) {
    std::string name = line.substr(line.find(' ', line.find_first_not_of(' ')) + 3);  // address, type, name
    name = name.substr(0, name.find("@@"));
    if (line.find(" A ") == std::string::npos) {  // the version's own name
      names.insert(name);
    }
  }
  return names;
}

TEST(Interface, ExportsTheListedNamesAndNoOther) {
  std::ifstream file(IPSEC_EXPORTED_SYMBOLS);
  ASSERT_TRUE(file);
  std::set<std::string> listed;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.front() != '#') {
      EXPECT_TRUE(listed.insert(line).second) << line << " is listed twice";
    }
  }
  const std::set<std::string> exported = exportedNames();
  EXPECT_GT(exported.size(), 50U);
  for (const std::string& name : exported) {
    EXPECT_TRUE(listed.count(name) != 0) << "exported but not listed: " << name;
  }
  for (const std::string& name : listed) {
    EXPECT_TRUE(exported.count(name) != 0) << "listed but not exported: " << name;
  }
}

// --- The registered message ------------------------------------------------------------------------------------------

TEST(Interface, RegistersItsLogMessage) {
  std::size_t found = 0;
  for (const Cor::LogMessage& message : Cor::LogHandle::registeredMessages()) {
    if (std::string(message.key) != "IPSEC_INVALID_DN_AS_REMOTE_ID") {
      continue;
    }
    ++found;
    EXPECT_STREQ(message.format, "Distinguished Name: %s configured for IKE Policy %s is invalid ");
    EXPECT_STREQ(message.explanation,
                 "Distinguished Name expects a Comma separated list ofRelative Distinguished Names (RDNs), Example: "
                 "C=XX,O='Organization Name',CN=commonName");
    EXPECT_STREQ(message.recommendedAction,
                 "Update Distinguished Name configured as part of remote-id to adhere to X.500 format");
    EXPECT_EQ(message.level, 4U);
  }
  EXPECT_EQ(found, 1U);
}

}  // namespace
}  // namespace Ipsec::Testing
