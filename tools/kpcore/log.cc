// kpcore log: one entry through the levelled logger's writers, so a user sees both layouts:
// to the journal (standard error without one) by default, to standard output with --console.
#include <climits>
#include <iostream>
#include <memory>
#include <utility>

#include "command.h"
#include "kp/logging/tarvix_log_writers.h"

namespace {

// The longest message the journal writer passes on whole.
constexpr std::size_t kMaxMessageBytes = 8u << 20;

// Passes entries on and remembers whether the journal took the last one.
class WatchedSystemLog final : public kp::SystemLog {
 public:
  explicit WatchedSystemLog(std::shared_ptr<kp::SystemLog> log) : log_(std::move(log)) {}
  bool write(const Entry& entry) noexcept override { return journalTookLast_ = log_->write(entry); }
  [[nodiscard]] bool journalTookLast() const noexcept { return journalTookLast_; }

 private:
  std::shared_ptr<kp::SystemLog> log_;
  bool journalTookLast_ = false;
};

kp::TarvixLogLevel parseLevel(const std::string& text) {
  for (int raw = 0; raw <= 4; ++raw) {
    const auto level = *kp::tarvixLogLevel(raw);
    if (kp::name(level) == text) return level;
  }
  throw kpcore::CommandError("unknown level '" + text + "' (debug, info, notice, error or fault)", 2);
}

int runLog(kpcore::Args& args) {
  const bool json = args.flag("json");
  const bool console = args.flag("console");
  const auto level = parseLevel(args.option("level").value_or("notice"));
  const auto category = args.option("category").value_or("General");
  const auto subsystem = args.option("subsystem").value_or(std::string(kp::TarvixLoggers::kSubsystem));
  const auto socket = args.option("socket");
  const auto file = args.option("file");
  const auto line = args.option("line");
  const auto function = args.option("function");
  std::string message;
  while (auto word = args.positional()) message += (message.empty() ? "" : " ") + *word;
  args.expectEnd();
  if (message.empty()) {
    // Read no more than the journal writer would keep, so endless input cannot exhaust memory.
    const auto tooLong = [] { return kpcore::CommandError("the message on standard input is longer than 8 MiB"); };
    auto input = kpcore::readInputUpTo(std::nullopt, kMaxMessageBytes + 1);  // and its line end
    if (!input) throw tooLong();
    message = std::move(*input);
    if (message.ends_with('\n')) message.pop_back();
    if (message.size() > kMaxMessageBytes) throw tooLong();
  }

  kp::TarvixLogData data{level,
                         kp::Date::now(),
                         std::move(message),
                         category,
                         file.value_or(__FILE__),
                         line ? static_cast<int>(kpcore::integerOption("line", *line, 1, INT_MAX)) : __LINE__,
                         function.value_or(__func__)};
  if (console) {
    if (socket) throw kpcore::CommandError("--socket goes with the journal, not --console", 2);
    kp::TarvixConsoleLogWriter().log(data);
    std::cout.flush();
    return 0;
  }
  auto systemLog = std::make_shared<WatchedSystemLog>(socket ? kp::SystemLog::make(*socket) : kp::SystemLog::shared());
  kp::TarvixOSLogWriter(subsystem, std::make_unique<kp::TarvixCoreLogicOSLogExecutor>(), systemLog).log(data);
  if (json) {
    std::cout << "{\"destination\":" << kpcore::jsonQuote(systemLog->journalTookLast() ? "journal" : "stderr")
              << ",\"subsystem\":" << kpcore::jsonQuote(subsystem) << ",\"category\":" << kpcore::jsonQuote(category)
              << ",\"level\":" << kpcore::jsonQuote(kp::name(level)) << "}\n";
  }
  return 0;
}

const kpcore::Registration registration{
    "log", "Write one entry to the journal or the console",
    "kpcore log [--level debug|info|notice|error|fault] [--category NAME] [--subsystem ID]\n"
    "                  [--socket PATH | --console] [--file PATH] [--line N] [--function NAME] [--json] "
    "[MESSAGE...]\n"
    "  Without a MESSAGE, standard input is the message. Without a journal the entry goes to standard error.",
    runLog};

}  // namespace
