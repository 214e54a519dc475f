// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The lines of the sections that are written to the connections file, and the settings that each line needs.
#pragma once

namespace Ipsec {

// When says under which condition a line is written: always, if a setting is present, or if it has a certain value.
struct When {
  const char* setting = nullptr;
  const char* value = nullptr;

  constexpr When is(const char* only) const { return {setting, only}; }
};

inline constexpr When always = {};
constexpr When with(const char* setting) {
  return {setting, nullptr};
}

// Value is what follows a line's text: a setting in one of three forms, or nothing.
struct Value {
  enum class Form { Verbatim, Seconds, AuthType };

  const char* setting = nullptr;
  Form form = Form::Verbatim;
};

inline constexpr Value nothing = {};
constexpr Value verbatim(const char* setting) {
  return {setting, Value::Form::Verbatim};
}
constexpr Value seconds(const char* setting) {
  return {setting, Value::Form::Seconds};
}
constexpr Value authType(const char* setting) {
  return {setting, Value::Form::AuthType};
}

// One line of a section that is written. Each column has its own type, so that no two can be confused.
struct Row {
  When when;
  const char* text;
  Value value;
};

// clang-format off
inline constexpr Row ordinarySection[] = {
    {always,                            "conn ",                      verbatim("config")},
    {with("ikeVersion"),                "\tkeyexchange=",             verbatim("ikeVersion")},
    {with("authby"),                    "\tauthby=",                  authType("authby")},
    {with("ikelifetime"),               "\tikelifetime=",             seconds("ikelifetime")},
    {with("lifetime"),                  "\tlifetime=",                seconds("lifetime")},
    {always,                            "\treqid=",                   verbatim("reqid")},
    {always,                            "\tleft=",                    verbatim("left")},
    {with("leftsubnet"),                "\tleftsubnet=",              verbatim("leftsubnet")},
    {with("localid"),                   "\tleftid=",                  verbatim("localid")},
    {always,                            "\tright=",                   verbatim("right")},
    {with("remoteid"),                  "\trightid=",                 verbatim("remoteid")},
    {always,                            "\tauto=add",                 nothing},
    {with("ike"),                       "\tike=",                     verbatim("ike")},
    {with("esp"),                       "\tesp=",                     verbatim("esp")},
    {with("tunnelMode").is("IpsecGre"), "\tleftprotoport=47",         nothing},
    {with("tunnelMode").is("IpsecGre"), "\trightprotoport=47",        nothing},
    // Kept (vti-leftsubnet): there are two leftsubnet lines when the setting is present too. The daemon takes the last
    // one.
    {with("tunnelMode").is("IpsecVti"), "\tleftsubnet=0.0.0.0/0",     nothing},
    {with("tunnelMode").is("IpsecVti"), "\trightsubnet=0.0.0.0/0",    nothing},
    {with("mark"),                      "\tmark=",                    verbatim("mark")},
    // Kept (dpd-with-action): without action the other two are left out, whatever their value.
    {with("action"),                    "\tdpdaction=",               verbatim("action")},
    {with("action"),                    "\tdpddelay=",                verbatim("interval")},
    {with("action"),                    "\tdpdtimeout=",              verbatim("timeout")},
    // Kept (presence-counts): any value of encap means yes.
    {with("encap"),                     "\tforceencaps=yes",          nothing},
    {with("type"),                      "\ttype=",                    verbatim("type")},
    {with("replayWindowSize"),          "\treplay_window=",           verbatim("replayWindowSize")},
    {with("packetLimit"),               "\tlifepackets=",             verbatim("packetLimit")},
    {with("marginpackets"),             "\tmarginpackets=",           verbatim("marginpackets")},
    {with("byteLimit"),                 "\tlifebytes=",               verbatim("byteLimit")},
    {with("marginbytes"),               "\tmarginbytes=",             verbatim("marginbytes")},
    {with("reauth"),                    "\treauth=",                  verbatim("reauth")},
    {always,                            "\tmobike=no",                nothing},
    {always,                            "\tikedscp=110000",           nothing},
    {always,                            "",                           nothing},
};

// Kept (esp-before-ike): esp comes before ike here and after it above. The daemon takes them in any order.
inline constexpr Row defaultSection[] = {
    {always,                            "conn %default",              nothing},
    {always,                            "\tauthby=",                  authType("authby")},
    {always,                            "\tikelifetime=",             seconds("ikelifetime")},
    {always,                            "\tlifetime=",                seconds("lifetime")},
    {always,                            "\trekeymargin=3m",           nothing},
    {always,                            "\tkeyingtries=1",            nothing},
    {always,                            "\tmobike=no",                nothing},
    {always,                            "\tkeyexchange=",             verbatim("ikeVersion")},
    {always,                            "\tauto=add",                 nothing},
    {with("esp"),                       "\tesp=",                     verbatim("esp")},
    {with("ike"),                       "\tike=",                     verbatim("ike")},
    {with("packetLimit"),               "\tlifepackets=",             verbatim("packetLimit")},
    {with("marginpackets"),             "\tmarginpackets=",           verbatim("marginpackets")},
    {with("byteLimit"),                 "\tlifebytes=",               verbatim("byteLimit")},
    {with("marginbytes"),               "\tmarginbytes=",             verbatim("marginbytes")},
    {always,                            "\tikedscp=110000",           nothing},
    {always,                            "",                           nothing},
};
// clang-format on

}  // namespace Ipsec
