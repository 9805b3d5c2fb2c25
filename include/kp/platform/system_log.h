// kp::SystemLog and kp::OSLogger: the system's unified log, here the systemd journal.
//
// An OSLogger is the log of one (subsystem, category) pair. Each entry becomes one journal
// entry with these fields, so that `journalctl SUBSYSTEM=com.example.app CATEGORY=General`
// finds it:
//   MESSAGE    the message
//   PRIORITY   syslog priority from the type: debug 7, info 6, default 5, error 3, fault 2
//   SUBSYSTEM  the logger's subsystem (a reverse-domain identifier)
//   CATEGORY   the logger's category
//   CODE_FILE, CODE_LINE, CODE_FUNC   the source position the caller gives (the journal's
//              own names for it)
// Field values are made valid UTF-8 on the way: malformed bytes and control characters other
// than tab and line feed become U+FFFD, so journalctl shows text rather than "[blob data]".
//
// A SystemLog is the connection to one journal socket. An entry that the journal does not take
// (no journal runs, its socket is gone, or it stays full for 100 ms) goes to standard error
// instead, as one line written with one write:
//   "<subsystem>[<category>] <type>: <message>\n"
// After such a timeout, entries do not wait again until the journal takes one.
//
// Thread safety: every member may be called from any thread; entries from many threads
// interleave whole.
//
// Example:
//   kp::OSLogger log("com.example.app", "Network");
//   log.log(kp::OSLogType::error, "Timed out", {__FILE__, __LINE__, __func__});
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// The levels of the system log, lowest first.
enum class OSLogType : std::uint8_t { debug, info, default_, error, fault };

// "debug", "info", "default", "error" or "fault".
[[nodiscard]] KP_EXPORT std::string_view name(OSLogType type) noexcept;

// Where an entry was logged from.
struct KP_EXPORT OSLogCodeLocation {
  std::string_view file;      // the source path
  int line = 0;               // the line
  std::string_view function;  // the function name
};

class KP_EXPORT SystemLog {
 public:
  // One entry.
  struct Entry {
    std::string_view subsystem;            // the program's subsystem, "com.example.app"
    std::string_view category;             // the part of it, "Network"
    OSLogType type = OSLogType::default_;  // the level
    std::string_view message;              // the text
    OSLogCodeLocation where;               // where it was logged from
  };

  virtual ~SystemLog() = default;

  // The system journal with standard error as fallback; made once, never destroyed.
  [[nodiscard]] static const std::shared_ptr<SystemLog>& shared();
  // The journal listening on `socketPath` (its native socket; empty means the system
  // journal's), with standard error as fallback. A namespaced journal listens on
  // /run/systemd/journal.<namespace>/socket.
  [[nodiscard]] static std::shared_ptr<SystemLog> make(std::string socketPath);

  // Writes one entry. True when the journal took it, false when it went to the fallback.
  virtual bool write(const Entry& entry) noexcept = 0;
};

// Writes entries of one subsystem and category to a system log.
class KP_EXPORT OSLogger {
 public:
  // Entries of `subsystem` and `category`, written to `systemLog`.
  OSLogger(std::string subsystem, std::string category, std::shared_ptr<SystemLog> systemLog = SystemLog::shared());

  [[nodiscard]] const std::string& subsystem() const noexcept { return subsystem_; }  // the subsystem
  [[nodiscard]] const std::string& category() const noexcept { return category_; }    // the category
  // Every type: the journal filters by its own MaxLevelStore, which a client cannot read.
  [[nodiscard]] bool isEnabled(OSLogType type) const noexcept;
  // Writes one entry.
  void log(OSLogType type, std::string_view message, const OSLogCodeLocation& where = {}) const noexcept;

 private:
  std::string subsystem_;
  std::string category_;
  std::shared_ptr<SystemLog> systemLog_;
};

}  // namespace kp
