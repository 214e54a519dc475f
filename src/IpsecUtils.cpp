// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What an agent does on its host: connection names, the IKE daemon's two files, kernel modules, the replay window,
// whether the daemon runs, and small formatting functions.

// Kept (assertions-in-release): the assertions below are part of the contract and not debugging aids: they stop the
// process in release builds too.
#undef NDEBUG
#include "DaemonFiles.h"
#include "Ipsec.h"
#include "PidFile.h"
#include "Tracer.h"
#include "WholeFile.h"
#include "base/CancellationHeld.h"
#include "base/Descriptor.h"
#include "platform/Process.h"

#include <openssl/crypto.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <limits>
#include <locale>
#include <optional>
#include <utility>

namespace Ipsec {

namespace {

constexpr unsigned infoLevel = 1;
constexpr unsigned commandLevel = 8;

const Tracer<commandLevel> trace("IpsecUtils");

// --- Secrets ---------------------------------------------------------------------------------------------------------

// Clears the values of a map when the scope is left. The framework's string shows its bytes as constants.
class ValuesCleared {
 public:
  explicit ValuesCleared(stringmap& cleared) noexcept : settings(cleared) {}
  ~ValuesCleared() {
    for (auto& [name, value] : settings) {
      OPENSSL_cleanse(const_cast<char*>(value.data()), value.size());
    }
  }
  ValuesCleared(const ValuesCleared&) = delete;
  ValuesCleared& operator=(const ValuesCleared&) = delete;

 private:
  stringmap& settings;
};

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

// Kept (unload-order): this is not the reverse of the loading order. A module that another one still uses stays loaded.
constexpr ModuleCommand unloadCryptoModules[] = {
    {unloader, "aesni_intel", "Failed to unload aesni_intel, rc ", infoLevel},
    {unloader, "aes-x86_64", "Failed to unload aes-x86_64, rc ", infoLevel},
    // Kept (cryptd-null-message): the message says cryptd_null, but the module that is removed is crypto_null.
    {unloader, "crypto_null", "Failed to unload cryptd_null, rc ", infoLevel},
};

constexpr ModuleCommand loadFlowModule[] = {
    // Kept (flow-message): the message calls the module ipsec_flow_encap, and the return code follows it without a
    // blank.
    {loader, "ipsec_flow_parallelization", "Failed to load ipsec_flow_encap netfilter module", trace.errorLevel},
};

// Kept (failed-module-tool): a tool that ran and failed is not reported. A kernel may have the module built in, or may
// not have it at all.
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
  // Kept (default-vrf-only): the names do not contain the VRF, so two connections would share one.
  assert(key.vrfId() == Vrf::VrfIdMap::VrfId::defaultVrf());
  const L3::VrfName vrfName("default");
  Vello::OStringStream name;
  name.imbue(std::locale::classic());  // A name must not change with the digit grouping of the process's locale.
  name << vrfName << "-" << key.firstAddr() << "-" << key.secondAddr() << "-" << key.connIdSrc() << "-" << key.connId();
  return name.str();
}

// --- The IKE daemon's files ------------------------------------------------------------------------------------------

void writeConnections(stringmap settings) {  // NOLINT(performance-unnecessary-value-param)
  const Base::CancellationHeld held;
  Replacement file(connectionsPath);
  rewriteConnections(file.oldText(), settings, file);
  if (!file.moveIntoPlace()) {
    (void)trace.failed("writeConnections", "Error renaming tmp file to ipsec.conf");
  }
}

// Takes its map by value, because its callers were compiled to pass it so.
void writeSecrets(stringmap entry) {
  const Base::CancellationHeld held;
  const ValuesCleared cleared(entry);
  Replacement file(secretsPath);
  rewriteSecrets(file.oldText(), entry, file);
  if (!file.moveIntoPlace()) {
    (void)trace.failed("writeSecrets", "Error renaming tmp file to ipsec.secrets");
  }
}

// --- Kernel modules --------------------------------------------------------------------------------------------------

int _execCommand(const char** argv) {
  int status = -1;
  Vello::Ptr<Cor::Process> child = Cor::run(argv, -1, -1, -1, -1);
  // Kept (failed-wait): a wait that fails leaves the status at -1, also when a signal handler interrupts it.
  (void)waitpid(child->pid(), &status, 0);
  const int waitError = errno;
  child.reset();
  errno = waitError;
  return status;  // Kept (raw-wait-status): as waitpid gives it.
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
  const Base::CancellationHeld held;
  constexpr char path[] = "/proc/sys/net/core/xfrm_replay_esn_max";
  constexpr char where[] = "setMaxReplayWindow()";  // Kept (replay-messages): with parentheses, and all at level 1.
  constexpr int packets = 65536;
  trace.entered();
  (void)trace.failedAt(infoLevel, where, "Setting xfrm_replay_esn_max to ", packets);
  if (access(path, F_OK) != 0) {
    const int accessError = errno;
    (void)trace.failedAt(infoLevel, where, "Unable to set ", path, " due to errno ", accessError);
    return;
  }
  const Base::Descriptor setting = Base::openFile(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (!setting.isOpen()) {
    (void)trace.failedAt(infoLevel, where, "Failed to set max replay window size");
    return;
  }
  // Kept (refused-replay-window): a value that the kernel refuses is not reported.
  (void)writeAll(setting, std::to_string(packets) + "\n");
}

bool isSswanRunning() {
  const Base::CancellationHeld held;
  constexpr char path[] = "/etc/strongswan/ipsec.d/run/charon.pid";
  if (access(path, F_OK) != 0) {
    return false;
  }
  const std::optional<int> pid = firstPid(readWholeFile(path).view());
  // Kept (pid-of-groups): a number of 0 or below is passed on too, and kill then addresses process groups.
  // Kept (other-users-daemon): a daemon that the caller may not signal counts as not running.
  return pid && kill(*pid, 0) == 0;
}

// --- Formatting ------------------------------------------------------------------------------------------------------

L3::VrfName vrfIdToName(Vrf::VrfIdMap::VrfId vrfId, const Vello::Ptr<const Vrf::VrfIdMap::Status>& status) {
  using Vrf::VrfIdMap;
  const VrfIdMap::VrfEntry entry = [&] {
    try {
      return status->vrfEntry(vrfId);
    } catch (const Vello::CorruptionDetectedException& corruption) {
      // Kept (damaged-vrf-entry): the table's handler gets the message, and the assertion below then stops the process.
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

// Kept (round-up-wraps): 0 and values above 4294967264 wrap around to 0.
unsigned int roundUp(unsigned int value) {
  return ((value - 1) | 31) + 1;
}

Cor::String secondsToTimestamp(Vello::Duration time) {
  const double wholeSeconds = std::trunc(time.seconds());  // Kept (cut-toward-zero): before the epoch too.
  constexpr double beyondTime = 9223372036854775808.0;     // 2^63
  if (!(std::abs(wholeSeconds) < beyondTime)) {
    return {};  // This also covers an infinite time and one that is not a number.
  }
  const auto wholeTime = static_cast<std::time_t>(wholeSeconds);
  std::tm parts = {};
  constexpr int lastYear = std::numeric_limits<int>::max() - 1900;  // Above this, strftime's own sum overflows.
  if (localtime_r(&wholeTime, &parts) == nullptr || parts.tm_year > lastYear) {
    return {};
  }
  char text[30] = {};
  (void)std::strftime(text, sizeof text, "%F %T", &parts);  // Long enough for any year of an int.
  return text;
}

}  // namespace Ipsec
