// kp::LogConsoleWriter: the LogWriter that prints one line per entry, by default to standard
// output:
//   [date ]mark: [%04d-line file (function): ]message
// e.g. "2026-11-23 14:03:07.125 🔵: 0007 Loader.cc (load): done". The date is the time of
// writing, by the date formatter made from formatOptions()->dateFormat() when the writer is
// made (later changes of the pattern, or new options, do not change it); the two prefix
// switches are read at every line. The file is the last component of the path, the function
// its name up to the first "(".
//
// Thread safety: log() may be called from any thread; each line is printed with one write to
// the stream, so lines of different threads never mix.
//
// Example:
//   auto writer = std::make_shared<kp::LogConsoleWriter>(
//       std::make_shared<kp::Log::FormatOptions>(false, true, ""));
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>

#include "kp/logging/log.h"
#include "kp/platform/date_formatter.h"
#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT LogConsoleWriter final : public LogWriter {
 public:
  // REQUIRES: formatOptions is not null; `stream` stays open while the writer lives.
  explicit LogConsoleWriter(std::shared_ptr<Log::FormatOptions> formatOptions, std::FILE* stream = stdout);

  [[nodiscard]] std::shared_ptr<Log::FormatOptions> formatOptions() const override;
  void setFormatOptions(std::shared_ptr<Log::FormatOptions> options) override;
  void log(const Log::LogData& data) override;

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<Log::FormatOptions> formatOptions_;  // guarded by mutex_
  const DateFormatter dateFormatter_;
  std::FILE* const stream_;
};

}  // namespace kp
