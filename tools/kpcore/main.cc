// kpcore: see what the library would send, decrypt a captured answer, inspect the cache,
// call a service. `kpcore --help` lists the subcommands.
#include <exception>
#include <iostream>

#include "command.h"
#include "kp/version.h"

namespace {

void printHelp(std::ostream& out) {
  out << "usage: kpcore [--version] [--help] <command> [args] [--json]\n\ncommands:\n";
  for (const auto& command : kpcore::commands()) {
    out << "  " << command.name << std::string(command.name.size() < 12 ? 12 - command.name.size() : 1, ' ')
        << command.summary << "\n";
  }
  out << "\n`kpcore <command> --help` shows a command's usage.\n";
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> rest(argv + 1, argv + argc);
  if (rest.empty() || rest.front() == "--help" || rest.front() == "-h" || rest.front() == "help") {
    printHelp(std::cout);
    return rest.empty() ? 2 : 0;
  }
  if (rest.front() == "--version") {
    std::cout << "kpcore " << KP_VERSION_STRING << "\n";
    return 0;
  }
  const std::string name = rest.front();
  rest.erase(rest.begin());
  for (const auto& command : kpcore::commands()) {
    if (command.name != name) continue;
    if (!rest.empty() && (rest.front() == "--help" || rest.front() == "-h")) {
      std::cout << "usage: " << command.usage << "\n";
      return 0;
    }
    kpcore::Args args(std::move(rest));
    try {
      return command.run(args);
    } catch (const kpcore::CommandError& error) {
      // Messages quote arguments, paths and what servers said: escaped, they stay one line.
      std::cerr << "kpcore " << name << ": " << kpcore::printable(error.what()) << "\n";
      return error.status;
    } catch (const std::exception& error) {
      std::cerr << "kpcore " << name << ": " << kpcore::printable(error.what()) << "\n";
      return 1;
    }
  }
  std::cerr << "kpcore: unknown command '" << kpcore::printable(name) << "' (see kpcore --help)\n";
  return 2;
}
