// kpcore's own documentation, in every form the shell wants it: `kpcore --help`, the kpcore(1)
// manual page and the bash completion. All three are made from one text, the general part
// here and each subcommand's summary and usage from its registration, so they cannot
// disagree; the build writes the manual page and the completion script with the tool itself.
//
// Thread safety: call after static initialisation (the registrations) has finished.
#pragma once

#include <string>

#include "command.h"

namespace kpcore {

// `kpcore --help`: usage, description, subcommands, options and exit status.
[[nodiscard]] std::string helpText();
// `kpcore <command> --help`.
[[nodiscard]] std::string commandHelp(const CommandInfo& command);
// The same texts as a manual page (roff, man macros), one section per subcommand.
[[nodiscard]] std::string manPage();
// A bash completion script for the subcommands, their actions, options and option values.
[[nodiscard]] std::string bashCompletion();

}  // namespace kpcore
