// What an agent does to its host: connection names, the IKE daemon's two files, kernel modules, the replay window,
// the daemon's liveness, and small formatting helpers.

// The assertions below are contract, not debugging aids: they stop the process in release builds too.
#undef NDEBUG
#include "CheckedAt.h"
#include "Ipsec.h"
#include "Tracer.h"
#include "base/Descriptor.h"
#include "platform/Process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <locale>
#include <optional>
#include <regex>
#include <string_view>
#include <utility>

namespace Ipsec {

using Base::Descriptor;

namespace {

constexpr unsigned infoLevel = 1;
constexpr unsigned commandLevel = 8;

const Tracer trace("IpsecUtils", commandLevel);

// --- Files -----------------------------------------------------------------------------------------------------------

// Reads up to size bytes. Returns their number, 0 at the end of the file, -1 for an error.
ssize_t readSome(const Descriptor& file, char* bytes, std::size_t size) noexcept {
  ssize_t count;
  do {
    count = ::read(file.get(), bytes, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

// Returns the whole lines that can be read from a file, and a last one without its newline if the file ends in it. A
// file that cannot be opened has none.
std::string readLines(const char* path) {
  constexpr std::size_t roomAtLeast = 4096;
  const Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) {
    return {};
  }
  struct stat status = {};
  (void)fstat(file.get(), &status);  // Only a hint: the file may grow, and some have no size.
  std::string text(static_cast<std::size_t>(status.st_size) + roomAtLeast, '\0');
  std::size_t length = 0;
  ssize_t count;
  while ((count = readSome(file, text.data() + length, text.size() - length)) > 0) {
    length += static_cast<std::size_t>(count);
    if (text.size() - length < roomAtLeast) {
      text.resize(2 * text.size());
    }
  }
  text.resize(length);
  if (count < 0) {
    text.resize(text.rfind('\n') + 1);  // npos + 1 is 0: no whole line.
  }
  return text;
}

// Replacement is a new file that is built beside an old one, with ".tmp" appended to its name, and takes its place once
// it is whole. Without moveIntoPlace the temporary file is left as far as it was written.
class Replacement {
 public:
  explicit Replacement(const char* replaced)
      : path(replaced),
        temporaryPath(path + ".tmp"),
        file(::open(temporaryPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
        whole(file.isOpen()) {}

  void append(std::string_view text) noexcept {
    while (whole && !text.empty()) {
      const ssize_t count = ::write(file.get(), text.data(), text.size());
      if (count > 0) {
        text.remove_prefix(static_cast<std::size_t>(count));
      } else {
        whole = count < 0 && errno == EINTR;
      }
    }
  }

  // Closes the new file and moves it over the old one. Returns false, with the old file in place, when the new one
  // could not be opened, written or closed (a full disk may show only then), or not be moved.
  bool moveIntoPlace() noexcept {
    return file.close() && whole && std::rename(temporaryPath.c_str(), path.c_str()) == 0;
  }

 private:
  std::string path;
  std::string temporaryPath;
  Descriptor file;
  bool whole;
};

// Appends the lines of text that the rule keeps, each with a newline, also the last.
template <class Rule>
void copyLines(std::string_view text, Rule keeps, Replacement& copy) {
  std::size_t keptFrom = 0;  // Kept lines are gathered up to the next dropped one: [keptFrom, start).
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::size_t next = std::min(end + 1, text.size());
    if (!keeps(text.substr(start, end - start))) {
      copy.append(text.substr(keptFrom, start - keptFrom));
      keptFrom = next;
    }
    start = next;
  }
  copy.append(text.substr(keptFrom));
  if (keptFrom < text.size() && text.back() != '\n') {
    copy.append("\n");
  }
}

// LineMatcher finds what std::regex_search finds with the ECMAScript expression "^" + start, and "$" behind it for a
// whole line. The names and addresses in use hold no metacharacter but ".", and are compared byte by byte, which costs
// a fraction of the search.
class LineMatcher {
 public:
  enum class Covers { Start, WholeLine };

  // Throws std::regex_error. A plain start that is too long for an expression is refused, but not by compiling it: the
  // standard library's compiler recurses at every character, and its stack would end first.
  LineMatcher(std::string text, Covers extent)
      : start(std::move(text)), covers(extent), plain(std::all_of(start.begin(), start.end(), isPlain)) {
    const std::string searched = "^" + start + (covers == Covers::WholeLine ? "$" : "");
    if (!plain) {
      expression = Vello::Regex::compile(searched, std::regex_constants::ECMAScript);
    } else if (searched.size() > longestPlain) {
      throw std::regex_error(std::regex_constants::error_space);
    }
  }

  bool matches(std::string_view line) const {
    if (!plain) {
      return Vello::Regex::search(line, expression);
    }
    const bool longEnough = covers == Covers::WholeLine ? line.size() == start.size() : line.size() >= start.size();
    return longEnough && std::equal(start.begin(), start.end(), line.begin(), matchesOne);
  }

 private:
  static constexpr std::size_t longestPlain = 99996;  // libstdc++ refuses a plain expression of more characters.

  // Characters that stand for themselves in an expression, and "." that stands for any but a line's end.
  static bool isPlain(char character) noexcept {
    return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
           (character >= 'A' && character <= 'Z') ||
           (character != '\0' && std::strchr(" .:-_%/@", character) != nullptr);
  }

  static bool matchesOne(char expected, char character) noexcept {
    return expected == character || (expected == '.' && character != '\r' && character != '\n');
  }

  std::string start;
  Covers covers;
  bool plain;
  std::regex expression;  // compiled when the start is not plain
};

// --- The connections file --------------------------------------------------------------------------------------------

constexpr char connectionsPath[] = "/etc/strongswan/ipsec.conf";

bool isSectionHead(std::string_view line) {
  return line.substr(0, 5) == "conn ";
}

// ConnectionLines tells which lines of the old connections file stay when one section is replaced.
class ConnectionLines {
 public:
  ConnectionLines(const Vello::String& sectionName, bool dropsGlobal)
      : ownHead("conn " + sectionName.str(), LineMatcher::Covers::WholeLine),
        global(dropsGlobal ? Part::Ahead : Part::Behind) {}

  // Takes the lines in their order.
  bool keeps(std::string_view line) {
    // Kept: the words start the global section wherever they stand in a line, in a comment too.
    if (global == Part::Ahead && line.find("config setup") != std::string_view::npos) {
      global = Part::Within;
      return false;
    }
    if (global == Part::Within) {
      if (!isSectionHead(line)) {
        return false;
      }
      global = Part::Behind;
    }
    return keepsBesideGlobal(line);
  }

 private:
  enum class Part { Ahead, Within, Behind };

  // Kept: only the first section of the name goes, a second one stays.
  bool keepsBesideGlobal(std::string_view line) {
    if (section == Part::Ahead && ownHead.matches(line)) {
      section = Part::Within;
      return false;
    }
    if (section == Part::Within) {
      if (!isSectionHead(line)) {
        return false;
      }
      section = Part::Behind;
    }
    return true;
  }

  LineMatcher ownHead;
  Part global;
  Part section = Part::Ahead;
};

// One line of a section that is written.
struct Row {
  enum class Form { Verbatim, Seconds, AuthType };

  const char* text;             // the line, or what stands before the value
  const char* value = nullptr;  // the setting whose value follows, if any
  Form form = Form::Verbatim;
  const char* condition = nullptr;       // the setting without which the line is left out, if any
  const char* conditionValue = nullptr;  // the value that it must have, if not any
};

constexpr Row::Form seconds = Row::Form::Seconds;
constexpr Row::Form authType = Row::Form::AuthType;

constexpr Row fixed(const char* text) {
  return {text};
}
constexpr Row required(const char* text, const char* setting, Row::Form form = Row::Form::Verbatim) {
  return {text, setting, form};
}
constexpr Row optional(const char* text, const char* setting, Row::Form form = Row::Form::Verbatim) {
  return {text, setting, form, setting};
}
constexpr Row fixedWith(const char* condition, const char* text) {
  return {text, nullptr, Row::Form::Verbatim, condition};
}
constexpr Row fixedWith(const char* condition, const char* conditionValue, const char* text) {
  return {text, nullptr, Row::Form::Verbatim, condition, conditionValue};
}
constexpr Row requiredWith(const char* condition, const char* text, const char* setting) {
  return {text, setting, Row::Form::Verbatim, condition};
}

// clang-format off
constexpr Row ordinarySection[] = {
    required("conn ", "config"),
    optional("\tkeyexchange=", "ikeVersion"),
    optional("\tauthby=", "authby", authType),
    optional("\tikelifetime=", "ikelifetime", seconds),
    optional("\tlifetime=", "lifetime", seconds),
    required("\treqid=", "reqid"),
    required("\tleft=", "left"),
    optional("\tleftsubnet=", "leftsubnet"),
    optional("\tleftid=", "localid"),
    required("\tright=", "right"),
    optional("\trightid=", "remoteid"),
    fixed("\tauto=add"),
    optional("\tike=", "ike"),
    optional("\tesp=", "esp"),
    fixedWith("tunnelMode", "IpsecGre", "\tleftprotoport=47"),
    fixedWith("tunnelMode", "IpsecGre", "\trightprotoport=47"),
    // Kept: a second leftsubnet line when the setting is there too. The daemon takes the last one.
    fixedWith("tunnelMode", "IpsecVti", "\tleftsubnet=0.0.0.0/0"),
    fixedWith("tunnelMode", "IpsecVti", "\trightsubnet=0.0.0.0/0"),
    optional("\tmark=", "mark"),
    optional("\tdpdaction=", "action"),
    requiredWith("action", "\tdpddelay=", "interval"),
    requiredWith("action", "\tdpdtimeout=", "timeout"),
    fixedWith("encap", "\tforceencaps=yes"),
    optional("\ttype=", "type"),
    optional("\treplay_window=", "replayWindowSize"),
    optional("\tlifepackets=", "packetLimit"),
    optional("\tmarginpackets=", "marginpackets"),
    optional("\tlifebytes=", "byteLimit"),
    optional("\tmarginbytes=", "marginbytes"),
    optional("\treauth=", "reauth"),
    fixed("\tmobike=no"),
    fixed("\tikedscp=110000"),
    fixed(""),
};

// Kept: esp comes before ike here and after it above. The daemon takes them in any order.
constexpr Row defaultSection[] = {
    fixed("conn %default"),
    required("\tauthby=", "authby", authType),
    required("\tikelifetime=", "ikelifetime", seconds),
    required("\tlifetime=", "lifetime", seconds),
    fixed("\trekeymargin=3m"),
    fixed("\tkeyingtries=1"),
    fixed("\tmobike=no"),
    required("\tkeyexchange=", "ikeVersion"),
    fixed("\tauto=add"),
    optional("\tesp=", "esp"),
    optional("\tike=", "ike"),
    optional("\tlifepackets=", "packetLimit"),
    optional("\tmarginpackets=", "marginpackets"),
    optional("\tlifebytes=", "byteLimit"),
    optional("\tmarginbytes=", "marginbytes"),
    fixed("\tikedscp=110000"),
    fixed(""),
};
// clang-format on

bool has(const stringmap& settings, const char* name) {
  return settings.find(name) != settings.end();
}

bool hasValue(const stringmap& settings, const char* name, const char* value) {
  const auto found = settings.find(name);
  return found != settings.end() && found->second == value;
}

bool isWritten(const Row& row, const stringmap& settings) {
  if (row.conditionValue != nullptr) {
    return hasValue(settings, row.condition, row.conditionValue);
  }
  return row.condition == nullptr || has(settings, row.condition);
}

// Returns the daemon's word for an authentication type's text.
Vello::String daemonAuthType(const Vello::String& text) {
  const stringmap words = {
      {Ike::stringValue(Ike::IpsecAuthType::PreSharedKey), "secret"},
      {Ike::stringValue(Ike::IpsecAuthType::PublicKey), "pubkey"},
  };
  return checkedAt(words, text);
}

Vello::String valueOf(const Row& row, const stringmap& settings) {
  Vello::String value = checkedAt(settings, row.value);
  switch (row.form) {
    case Row::Form::Seconds:
      value += "s";
      break;
    case Row::Form::AuthType:
      value = daemonAuthType(value);
      break;
    case Row::Form::Verbatim:
      break;
  }
  return value;
}

template <std::size_t rowCount>
std::string sectionText(const Row (&rows)[rowCount], const stringmap& settings) {
  std::string text;
  for (const Row& row : rows) {
    if (!isWritten(row, settings)) {
      continue;
    }
    text += row.text;
    if (row.value != nullptr) {
      text += valueOf(row, settings).str();
    }
    text += "\n";
  }
  return text;
}

std::string newSection(stringmap settings) {
  if (!hasValue(settings, "default", "%default")) {
    return sectionText(ordinarySection, settings);
  }
  // A setting that is there already stays.
  settings.emplace("authby", Ike::stringValue(Ike::IpsecAuthType::PreSharedKey));
  settings.emplace("ikelifetime", "28800");
  settings.emplace("lifetime", "3600");
  settings.emplace("ikeVersion", "2");  // Kept: no version to the daemon. Each section brings its own.
  return sectionText(defaultSection, settings);
}

// Returns the name of the section that is taken out.
Vello::String replacedSection(const stringmap& settings) {
  for (const char* name : {"default", "config"}) {
    const auto found = settings.find(name);
    if (found != settings.end()) {
      return found->second;
    }
  }
  return {};
}

// --- The secrets file ------------------------------------------------------------------------------------------------

constexpr char secretsPath[] = "/etc/strongswan/ipsec.secrets";

bool isDefaultSecret(const stringmap& entry) {
  return hasValue(entry, "secret", "%default");
}

// Returns the start of the line that is taken out; none when the entry names no line.
std::optional<std::string> replacedSecret(const stringmap& entry) {
  if (isDefaultSecret(entry)) {
    return " : PSK";
  }
  const auto peer = entry.find("peerIp");
  if (peer == entry.end()) {
    return std::nullopt;
  }
  return peer->second.str() + " :";
}

std::string newSecret(const stringmap& entry) {
  const std::string peer = isDefaultSecret(entry) ? "" : checkedAt(entry, "peerIp").str();
  return peer + " : PSK " + checkedAt(entry, "key").str() + "\n";
}

// --- Kernel modules --------------------------------------------------------------------------------------------------

struct ModuleCommand {
  const char* tool;
  const char* module;
  const char* failure;
  unsigned failureLevel;
};

constexpr char loader[] = "/sbin/modprobe";
constexpr char unloader[] = "/sbin/rmmod";

constexpr ModuleCommand loadCryptoModules[] = {
    {loader, "aes-x86_64", "Failed to load aes-x86_64, rc ", infoLevel},
    {loader, "aesni_intel", "Failed to load aesni_intel, rc ", infoLevel},
    {loader, "crypto_null", "Failed to load crypto_null, rc ", infoLevel},
};

// Kept: not the reverse of the loading order. A module that another one still uses stays loaded.
constexpr ModuleCommand unloadCryptoModules[] = {
    {unloader, "aesni_intel", "Failed to unload aesni_intel, rc ", infoLevel},
    {unloader, "aes-x86_64", "Failed to unload aes-x86_64, rc ", infoLevel},
    // Kept: the message says cryptd_null; the module removed is crypto_null.
    {unloader, "crypto_null", "Failed to unload cryptd_null, rc ", infoLevel},
};

constexpr ModuleCommand loadFlowModule[] = {
    // Kept: the message calls the module ipsec_flow_encap, and the return code follows it without a blank.
    {loader, "ipsec_flow_parallelization", "Failed to load ipsec_flow_encap netfilter module", Tracer::errorLevel},
};

// Kept: a tool that ran and failed is not reported. A kernel may well have the module built in, or not at all.
void runModuleCommand(const Where& where, const ModuleCommand& command) {
  const char* argv[] = {command.tool, command.module, nullptr};
  const int status = _execCommand(argv);
  const int waitError = errno;
  trace.note(commandLevel, where.site, "Command : ", command.tool, " ", command.module, " ");
  if (status >= 0) {
    return;
  }
  trace.note(commandLevel, where.site, "Returned : ", std::strerror(waitError));
  (void)trace.failedAt(command.failureLevel, where, command.failure, status);
}

template <std::size_t commandCount>
void runModuleCommands(const Where& where, const ModuleCommand (&commands)[commandCount]) {
  for (const ModuleCommand& command : commands) {
    runModuleCommand(where, command);
  }
}

}  // namespace

// --- Connection names ------------------------------------------------------------------------------------------------

Vello::String getConnNameFromKey(const ConnectionKey& key) {
  assert(key.vrfId() == Vrf::VrfIdMap::VrfId::defaultVrf());
  const L3::VrfName vrfName("default");
  Vello::OStringStream name;
  name.imbue(std::locale::classic());  // A name must not change with the digit grouping of the process's locale.
  name << vrfName << "-" << key.firstAddr() << "-" << key.secondAddr() << "-" << key.connIdSrc() << "-" << key.connId();
  return name.str();
}

// --- The IKE daemon's files ------------------------------------------------------------------------------------------

void writeConnections(stringmap settings) {
  const std::string oldText = readLines(connectionsPath);
  Replacement file(connectionsPath);
  ConnectionLines lines(replacedSection(settings), has(settings, "uniqueids"));
  if (hasValue(settings, "uniqueids", "add")) {
    file.append("config setup\n\tuniqueids=no\n");
  }
  copyLines(
      oldText, [&lines](std::string_view line) { return lines.keeps(line); }, file);
  if (!has(settings, "delete")) {
    file.append(newSection(std::move(settings)));
  }
  if (!file.moveIntoPlace()) {
    (void)trace.failed("writeConnections", "Error renaming tmp file to ipsec.conf");
  }
}

// Takes its map by value as its callers were compiled to pass it.
void writeSecrets(stringmap entry) {  // NOLINT(performance-unnecessary-value-param)
  const std::string oldText = readLines(secretsPath);
  Replacement file(secretsPath);
  std::optional<LineMatcher> replaced;  // Only until its first match: a second entry of the peer stays.
  if (std::optional<std::string> start = replacedSecret(entry)) {
    replaced.emplace(std::move(*start), LineMatcher::Covers::Start);
  }
  const auto keeps = [&replaced](std::string_view line) {
    if (!replaced || !replaced->matches(line)) {
      return true;
    }
    replaced.reset();
    return false;
  };
  copyLines(oldText, keeps, file);
  if (!has(entry, "delete")) {
    file.append(newSecret(entry));
  }
  if (!file.moveIntoPlace()) {
    (void)trace.failed("writeSecrets", "Error renaming tmp file to ipsec.secrets");
  }
}

// --- Kernel modules --------------------------------------------------------------------------------------------------

int _execCommand(const char** argv) {
  int status = -1;
  Vello::Ptr<Cor::Process> child = Cor::run(argv, -1, -1, -1, -1);
  // Kept: a wait that fails leaves the status as it is, also one that a signal handler interrupts.
  (void)waitpid(child->pid(), &status, 0);
  const int waitError = errno;
  child.reset();
  errno = waitError;
  return status;
}

void enableCryptoModules() {
  trace.entered();
  runModuleCommands("enableCryptoModules", loadCryptoModules);
}

void disableCryptoModules() {
  trace.entered();
  runModuleCommands("disableCryptoModules", unloadCryptoModules);
}

void enableFlowEncapModule() {
  runModuleCommands("enableFlowEncapModule", loadFlowModule);
}

// --- Replay window and liveness --------------------------------------------------------------------------------------

void setMaxReplayWindow() {
  constexpr char path[] = "/proc/sys/net/core/xfrm_replay_esn_max";
  constexpr char where[] = "setMaxReplayWindow()";
  constexpr int packets = 65536;
  trace.entered();
  (void)trace.failedAt(infoLevel, where, "Setting xfrm_replay_esn_max to ", packets);
  if (access(path, F_OK) != 0) {
    const int accessError = errno;
    (void)trace.failedAt(infoLevel, where, "Unable to set ", path, " due to errno ", accessError);
    return;
  }
  std::ofstream setting(path);
  if (!setting) {
    (void)trace.failedAt(infoLevel, where, "Failed to set max replay window size");
    return;
  }
  // Kept: a value that the kernel refuses is not reported.
  setting << std::to_string(packets) << "\n";
}

bool isSswanRunning() {
  constexpr char path[] = "/etc/strongswan/ipsec.d/run/charon.pid";
  if (access(path, F_OK) != 0) {
    return false;
  }
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line) || line.empty()) {
    return false;
  }
  // Kept: a daemon of another user that may not be signalled counts as not running, and a number of 0 or below is
  // passed on: kill then addresses process groups.
  return kill(std::stoi(line), 0) == 0;
}

// --- Formatting ------------------------------------------------------------------------------------------------------

L3::VrfName vrfIdToName(Vrf::VrfIdMap::VrfId vrfId, const Vello::Ptr<const Vrf::VrfIdMap::Status>& status) {
  using Vrf::VrfIdMap;
  const VrfIdMap::VrfEntry entry = [&] {
    try {
      return status->vrfEntry(vrfId);
    } catch (const Vello::CorruptionDetectedException& corruption) {
      status->corruptionHandler()(corruption.what());
      return status->defaultEntry();
    }
  }();
  const bool ve = entry != VrfIdMap::VrfEntry(VrfIdMap::VrfId::none());
  assert(ve);
  L3::VrfName vrfName(entry.name());
  assert(vrfName);
  return vrfName;
}

std::string fillSpace(unsigned int count) {
  std::string blanks(count, ' ');
  return blanks;
}

// Kept: 0 and values above 4294967264 wrap around to 0.
unsigned int roundUp(unsigned int value) {
  return ((value - 1) | 31) + 1;
}

Cor::String secondsToTimestamp(Vello::Duration time) {
  const double wholeSeconds = std::trunc(time.seconds());
  constexpr double beyondTime = 9223372036854775808.0;  // 2^63
  if (!(std::abs(wholeSeconds) < beyondTime)) {
    return {};  // An infinite time and one that is no number end here too.
  }
  const auto wholeTime = static_cast<std::time_t>(wholeSeconds);
  std::tm parts = {};
  constexpr int lastYear = std::numeric_limits<int>::max() - 1900;  // Above it strftime's own sum overflows.
  if (localtime_r(&wholeTime, &parts) == nullptr || parts.tm_year > lastYear) {
    return {};
  }
  char text[30] = {};
  (void)std::strftime(text, sizeof text, "%F %T", &parts);  // Fits with any year of an int.
  return text;
}

}  // namespace Ipsec
