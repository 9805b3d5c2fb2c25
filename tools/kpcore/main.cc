// kpcore: see what the library would send, decrypt a captured answer, inspect the cache,
// call a service. `kpcore --help` lists the subcommands.
#include <exception>
#include <iostream>

#include "command.h"
#include "help.h"
#include "kp/version.h"

int main(int argc, char** argv) {
  std::vector<std::string> rest(argv + 1, argv + argc);
  if (rest.empty() || rest.front() == "--help" || rest.front() == "-h" || rest.front() == "help") {
    std::cout << kpcore::helpText();
    return rest.empty() ? 2 : 0;
  }
  // The build writes kpcore(1) and the completion script with these.
  if (rest.size() == 1 && rest.front() == "--man") {
    std::cout << kpcore::manPage();
    return 0;
  }
  if (rest.size() == 1 && rest.front() == "--bash-completion") {
    std::cout << kpcore::bashCompletion();
    return 0;
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
      std::cout << kpcore::commandHelp(command);
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
