// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The framework: formatting, expressions, strings.

#include "platform/Framework.h"
#include "tests/platform/Children.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <link.h>

#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>

namespace Ipsec::Testing {
namespace {

TEST(Format, FormatsAsPrintfDoes) {
  EXPECT_EQ(Cor::_fmt("%s-%05d%%", "a", 42), "a-00042%");
  EXPECT_EQ(Cor::_fmt("%s", std::string(100'000, 'x').c_str()).size(), 100'000U);
  EXPECT_EQ(Cor::_fmt("%s", ""), "");
  EXPECT_EQ(Cor::_fmt("a%cb", '\0'), Cor::String(std::string("a\0b", 3)));
  EXPECT_THROW((void)Cor::_fmt("%lc", wint_t{0x110000}), std::invalid_argument) << "no character, so printf refuses";
}

// Where two libraries have a type information each, some C++ runtimes do not catch one's exception as the other's.
TEST(Exceptions, HaveOneTypeInformationInThePlatformLibrary) {
  for (const std::type_info* type : {&typeid(Vello::RangeException), &typeid(Vello::CorruptionDetectedException)}) {
    const std::string symbol = std::string("_ZTI") + type->name();
    EXPECT_EQ(dlsym(RTLD_DEFAULT, symbol.c_str()), type) << symbol;
  }
}

TEST(Exceptions, CanBeThrownByAnAgent) {
  EXPECT_THROW(throw Vello::RangeException("too long"), Vello::RangeException);
  EXPECT_THROW(throw Vello::CorruptionDetectedException("damaged"), std::runtime_error);
}

// An agent may use another version of spdlog than the stand-in. This program uses none.
TEST(Libraries, NeededAreNeitherSpdlogNorFmt) {
  Strings loaded;
  (void)dl_iterate_phdr(
      [](dl_phdr_info* library, std::size_t, void* all) {
        static_cast<Strings*>(all)->emplace_back(library->dlpi_name);
        return 0;
      },
      &loaded);
  EXPECT_GT(loaded.size(), 3U);
  for (const std::string& name : loaded) {
    EXPECT_EQ(name.find("libspdlog"), std::string::npos) << name;
    EXPECT_EQ(name.find("libfmt"), std::string::npos) << name;
  }
}

TEST(Regex, WrapsTheStandardLibrarys) {
  namespace Regex = Vello::Regex;
  const auto syntax = std::regex_constants::ECMAScript;
  EXPECT_TRUE(Regex::search("conn red", Regex::compile("^conn .ed$", syntax)));
  EXPECT_FALSE(Regex::search("  conn red", Regex::compile("^conn red$", syntax)));
  EXPECT_FALSE(Regex::search("conn", Regex::compile("^conn", syntax), std::regex_constants::match_not_bol));
  EXPECT_THROW((void)Regex::compile("conn (", syntax), std::regex_error);
}

TEST(Regex, OneThatWasNeverCompiledMatchesNothing) {
  EXPECT_FALSE(Vello::Regex::search("", std::regex()));
  EXPECT_FALSE(Vello::Regex::search("anything", std::regex()));
}

TEST(VelloString, HoldsAnyBytesAndHashesAsItsText) {
  const Vello::String text(std::string_view("a\0b", 3));
  EXPECT_EQ(text.size(), 3U);
  EXPECT_NE(text, Vello::String("a"));
  EXPECT_EQ(std::hash<Vello::String>()(text), std::hash<std::string_view>()(std::string_view("a\0b", 3)));
  Vello::OStringStream out;
  out << text << 7;
  EXPECT_EQ(out.str(), Vello::String(std::string_view("a\0b7", 4)));
}

}  // namespace
}  // namespace Ipsec::Testing
