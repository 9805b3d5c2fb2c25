// kpcore plist: shows a property list (binary or XML) as JSON, XML or binary.
#include <iostream>

#include "command.h"
#include "kp/coding/json.h"
#include "kp/coding/property_list.h"

namespace {

int runPlist(kpcore::Args& args) {
  const std::string to = args.option("to").value_or("json");
  const std::optional<std::string> path = args.positional();
  args.expectEnd();
  if (to != "json" && to != "xml" && to != "binary") throw kpcore::CommandError("--to must be json, xml or binary");
  const std::string input = kpcore::readInput(path);
  kp::Value tree;
  try {
    tree = kp::readPropertyList({reinterpret_cast<const std::uint8_t*>(input.data()), input.size()});
  } catch (const kp::CodingError& e) {
    throw kpcore::CommandError(std::string("not a property list: ") + e.what());
  }
  if (to == "json") {
    // Dates as ISO 8601 text, data as Base64 text.
    std::cout << kp::writeJson(tree, kp::DateStrategy::iso8601, true) << "\n";
  } else {
    const kp::Data out =
        kp::writePropertyList(tree, to == "xml" ? kp::PropertyListFormat::xml : kp::PropertyListFormat::binary);
    std::cout.write(out.view().data(), static_cast<std::streamsize>(out.size()));
  }
  return 0;
}

const kpcore::Registration registration{"plist", "Show a property list as JSON, XML or binary",
                                        "kpcore plist [--to json|xml|binary] [FILE]", runPlist};

}  // namespace
