// kpcore reachability: the connection kind and flag word of the internet as the library
// sees it; --watch prints each change, time-stamped, until interrupted.
#include "kp/connectivity/reachability.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "command.h"
#include "kp/platform/date.h"
#include "kp/platform/dispatch.h"

namespace {

const char* connectionName(kp::Reachability::Connection connection) {
  switch (connection) {
    case kp::Reachability::Connection::wifi:
      return "wifi";
    case kp::Reachability::Connection::cellular:
      return "cellular";
    case kp::Reachability::Connection::none:
      break;
  }
  return "none";
}

std::string flagNames(kp::ReachabilityFlags flags) {
  using F = kp::ReachabilityFlag;
  const std::pair<kp::ReachabilityFlags, const char*> names[] = {
      {F::transientConnection, "transientConnection"},
      {F::reachable, "reachable"},
      {F::connectionRequired, "connectionRequired"},
      {F::connectionOnTraffic, "connectionOnTraffic"},
      {F::interventionRequired, "interventionRequired"},
      {F::connectionOnDemand, "connectionOnDemand"},
      {F::isLocalAddress, "isLocalAddress"},
      {F::isDirect, "isDirect"},
      {F::isWWAN, "isWWAN"},
  };
  std::string text;
  for (const auto& [bit, name] : names) {
    if ((flags & bit) == 0) continue;
    if (!text.empty()) text += ",";
    text += name;
  }
  return text;
}

std::string timestamp() { return kp::Date::now().iso8601(true); }

void print(kp::Reachability& reachability, bool json, bool stamped) {
  const auto connection = reachability.connection();
  const kp::ReachabilityFlags flags = reachability.flags().value_or(0);
  char word[16];
  std::snprintf(word, sizeof word, "0x%08x", flags);
  if (json) {
    std::cout << "{";
    if (stamped) std::cout << "\"time\":" << kpcore::jsonQuote(timestamp()) << ",";
    std::cout << "\"connection\":" << kpcore::jsonQuote(connectionName(connection)) << ",\"flags\":" << flags
              << ",\"flagNames\":" << kpcore::jsonQuote(flagNames(flags)) << "}";
  } else {
    if (stamped) std::cout << timestamp() << " ";
    std::cout << connectionName(connection) << " " << word;
    if (flags != 0) std::cout << " " << flagNames(flags);
  }
  std::cout << std::endl;
}

// Interrupting a watch is its normal end; everything printed has already been flushed.
extern "C" void endWatch(int) { std::_Exit(0); }

int runReachability(kpcore::Args& args) {
  const bool json = args.flag("json");
  const bool watch = args.flag("watch");
  args.expectEnd();
  auto reachability = kp::Reachability::make();
  if (!reachability) throw kpcore::CommandError("this system offers no reachability source");
  if (!watch) {
    (void)reachability->connection();
    if (!reachability->flags()) {
      throw kpcore::CommandError("the reachability flags could not be read");
    }
    print(*reachability, json, false);
    return 0;
  }
  std::signal(SIGINT, endWatch);
  std::signal(SIGTERM, endWatch);
  auto report = [json](kp::Reachability& r) { print(r, json, true); };
  reachability->setWhenReachable(report);
  reachability->setWhenUnreachable(report);
  try {
    // The first read counts as a change, so the current state is printed first.
    reachability->startNotifier();
  } catch (const kp::Reachability::Error& error) {
    throw kpcore::CommandError(error.what());
  }
  kp::MainQueue::shared()->run();
  return 0;
}

const kpcore::Registration registration{
    "reachability", "Show whether the internet is reachable, and over which link",
    "kpcore reachability [--watch] [--json]\n"
    "  prints the connection kind (none, wifi, cellular) and the flag word;\n"
    "  --watch prints the state, then each change with a time stamp, until interrupted",
    runReachability};

}  // namespace
