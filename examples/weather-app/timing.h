// Start-up timing for measurements (--report-timing): one line on standard output per phase
// of the start, "phase <name> <CLOCK_MONOTONIC ns> <process CPU ns>", and per first frame
// that shows a forecast, "drawn <cache|network> <CLOCK_MONOTONIC ns> <process CPU ns>".
// The CPU time is user and system time of all the process's threads since it began, which
// a busy machine does not inflate the way it does the wall time.
//
// Thread safety: main thread only.
#pragma once

namespace weatherapp {

// Turns the lines on; until then report() prints nothing.
void enableTimingReports();
[[nodiscard]] bool timingReportsEnabled();

// Prints "<kind> <name> <monotonic ns> <cpu ns>" for now.
void report(const char* kind, const char* name);

}  // namespace weatherapp
