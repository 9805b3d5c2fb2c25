// kpcore's help text, manual page and bash completion, from one text.
#include "help.h"

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

#include "kp/version.h"

namespace kpcore {
namespace {

constexpr std::string_view kUsagePrefix = "usage: ";
constexpr std::string_view kSynopsis = "kpcore [--version] [--help] <command> [args] [--json]";
constexpr std::string_view kPurpose = "the weather library's command-line tool";
constexpr std::string_view kDescription =
    "kpcore runs the library's jobs from the shell: it shows what a request would send, runs "
    "requests and service calls, decrypts captured answers, inspects and maintains the cache, "
    "and reads and writes the user defaults, keychain and cookies the library keeps. Each "
    "command prints plain text, or JSON with --json.";

struct Entry {
  std::string_view term;
  std::string_view text;
};

constexpr Entry kOptions[] = {
    {"--help", "Show this text; `kpcore <command> --help` shows a command's usage."},
    {"--version", "Show the library's version."},
    {"--json", "After a command: print JSON instead of plain text, where the usage offers it."},
    {"--man", "Print this text as the kpcore(1) manual page."},
    {"--bash-completion", "Print the bash completion script."},
};

constexpr Entry kExitStatus[] = {
    {"0", "The command did its job."},
    {"1", "The command failed; one line on standard error says why."},
    {"2", "The command line was wrong: an unknown command or option, or a missing or malformed value."},
};

// Words of `text` in lines of at most `width` columns.
std::string wrap(std::string_view text, std::size_t width) {
  std::istringstream words{std::string(text)};
  std::string out;
  std::string line;
  for (std::string word; words >> word;) {
    if (!line.empty() && line.size() + 1 + word.size() > width) {
      out.append(line).append("\n");
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  if (!line.empty()) out.append(line).append("\n");
  return out;
}

// A command's usage without the help's "usage: " prefix: lines aligned under the first lose
// the prefix's width.
std::string usageAlone(const std::string& usage) {
  std::string out;
  std::istringstream lines(usage);
  for (std::string line; std::getline(lines, line);) {
    if (!out.empty()) {
      out += "\n";
      if (line.compare(0, kUsagePrefix.size(), std::string(kUsagePrefix.size(), ' ')) == 0)
        line.erase(0, kUsagePrefix.size());
    }
    out += line;
  }
  return out;
}

// Text as roff: backslashes and hyphens escaped, no line taken for a request.
std::string roff(std::string_view text) {
  std::string out;
  bool lineStart = true;
  for (const char c : text) {
    if (lineStart && (c == '.' || c == '\'')) out += "\\&";
    lineStart = c == '\n';
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

// What a command's usage offers for completion.
struct Completion {
  std::set<std::string> actions;
  std::set<std::string> options;
  std::map<std::string, std::set<std::string>> values;
  std::set<std::string> fileOptions;
  std::set<std::string> folderOptions;
};

Completion completionOf(const CommandInfo& command) {
  static const std::regex kOption(R"(--([a-z][a-z0-9-]*))");
  static const std::regex kValues(R"(--([a-z][a-z0-9-]*)[ =]([a-z0-9./]+(\|[a-z0-9./]+)+)(?![a-z0-9./|]))");
  static const std::regex kFile(R"(--([a-z][a-z0-9-]*) @?(FILE|PATH|PEM)\b)");
  static const std::regex kFolder(R"(--([a-z][a-z0-9-]*) DIR\b)");
  static const std::regex kAction(R"(^[a-z][a-z0-9-]*(\|[a-z][a-z0-9-]*)*$)");
  Completion completion;
  completion.options = {"--help"};
  const std::string prefix = "kpcore " + command.name + " ";
  std::istringstream lines(command.usage);
  for (std::string line; std::getline(lines, line);) {
    const auto start = line.find_first_not_of(' ');
    if (start != std::string::npos && line.compare(start, prefix.size(), prefix) == 0) {
      std::istringstream rest(line.substr(start + prefix.size()));
      std::string first;
      if (rest >> first && std::regex_match(first, kAction)) {
        std::istringstream actions(first);
        for (std::string action; std::getline(actions, action, '|');) completion.actions.insert(action);
      }
    }
    for (std::sregex_iterator it(line.begin(), line.end(), kOption), end; it != end; ++it)
      completion.options.insert((*it)[0]);
    for (std::sregex_iterator it(line.begin(), line.end(), kValues), end; it != end; ++it) {
      std::istringstream values((*it)[2].str());
      for (std::string value; std::getline(values, value, '|');) completion.values["--" + (*it)[1].str()].insert(value);
    }
    for (std::sregex_iterator it(line.begin(), line.end(), kFile), end; it != end; ++it)
      completion.fileOptions.insert("--" + (*it)[1].str());
    for (std::sregex_iterator it(line.begin(), line.end(), kFolder), end; it != end; ++it)
      completion.folderOptions.insert("--" + (*it)[1].str());
  }
  return completion;
}

std::string joined(const std::set<std::string>& words) {
  std::string out;
  for (const auto& word : words) out += (out.empty() ? "" : " ") + word;
  return out;
}

}  // namespace

std::string helpText() {
  std::string out =
      std::string(kUsagePrefix) + std::string(kSynopsis) + "\n\n" + wrap(kDescription, 92) + "\ncommands:\n";
  for (const auto& command : commands()) {
    out += "  " + command.name + std::string(command.name.size() < 14 ? 14 - command.name.size() : 1, ' ') +
           command.summary + "\n";
  }
  out += "\noptions:\n";
  for (const auto& option : kOptions) {
    const std::string term(option.term);
    out += "  " + term + std::string(term.size() < 20 ? 20 - term.size() : 1, ' ') + std::string(option.text) + "\n";
  }
  out += "\nexit status:\n";
  for (const auto& status : kExitStatus)
    out += "  " + std::string(status.term) + "  " + std::string(status.text) + "\n";
  return out;
}

std::string commandHelp(const CommandInfo& command) { return std::string(kUsagePrefix) + command.usage + "\n"; }

std::string manPage() {
  std::string out = ".TH KPCORE 1 \"\" \"KPFrameworkCoreLogic " KP_VERSION_STRING "\" \"User Commands\"\n";
  out += ".SH NAME\nkpcore \\- " + roff(kPurpose) + "\n";
  out += ".SH SYNOPSIS\n.B " + roff(kSynopsis) + "\n";
  out += ".SH DESCRIPTION\n" + roff(kDescription) + "\n";
  out += ".SH COMMANDS\n";
  for (const auto& command : commands()) {
    out += ".SS " + roff(command.name) + "\n" + roff(command.summary) + ".\n.PP\n.nf\n" +
           roff(usageAlone(command.usage)) + "\n.fi\n";
  }
  out += ".SH OPTIONS\n";
  for (const auto& option : kOptions) out += ".TP\n.B " + roff(option.term) + "\n" + roff(option.text) + "\n";
  out += ".SH \"EXIT STATUS\"\n";
  for (const auto& status : kExitStatus) out += ".TP\n.B " + roff(status.term) + "\n" + roff(status.text) + "\n";
  return out;
}

std::string bashCompletion() {
  std::set<std::string> names = {"--help", "--version", "--man", "--bash-completion"};
  for (const auto& command : commands()) names.insert(command.name);
  std::string valueCases;
  std::string commandCases;
  for (const auto& command : commands()) {
    const auto completion = completionOf(command);
    for (const auto& [option, values] : completion.values)
      valueCases += "      \"" + command.name + " " + option + "\") words=\"" + joined(values) + "\" ;;\n";
    for (const auto& option : completion.fileOptions)
      valueCases +=
          "      \"" + command.name + " " + option +
          "\") compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- \"$cur\"); return ;;\n";
    for (const auto& option : completion.folderOptions)
      valueCases +=
          "      \"" + command.name + " " + option +
          "\") compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- \"$cur\"); return ;;\n";
    commandCases += "          " + command.name + ") actions=\"" + joined(completion.actions) + "\" options=\"" +
                    joined(completion.options) + "\" ;;\n";
  }
  return "# bash completion for kpcore(1), made by `kpcore --bash-completion` from its help text.\n"
         "_kpcore() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  local words=\"\" actions=\"\" options=\"\" word\n"
         "  COMPREPLY=()\n"
         "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
         "    words=\"" +
         joined(names) +
         "\"\n"
         "  else\n"
         "    case \"${COMP_WORDS[1]} $prev\" in\n" +
         valueCases +
         "      *)\n"
         "        case \"${COMP_WORDS[1]}\" in\n" +
         commandCases +
         "        esac\n"
         "        # Options after a dash; an action while none is given; otherwise file names.\n"
         "        if [[ $cur == -* ]]; then\n"
         "          words=$options\n"
         "        elif [ -n \"$actions\" ]; then\n"
         "          words=$actions\n"
         "          for word in \"${COMP_WORDS[@]:2:COMP_CWORD-2}\"; do\n"
         "            if [[ \" $actions \" == *\" $word \"* ]]; then words=\"\"; break; fi\n"
         "          done\n"
         "        fi ;;\n"
         "    esac\n"
         "  fi\n"
         "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
         "}\n"
         "complete -o default -F _kpcore kpcore\n";
}

}  // namespace kpcore
