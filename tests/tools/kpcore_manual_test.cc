// kpcore's manual page and bash completion as the shell uses them: the page renders without a
// formatter warning, and completion offers what each position of a command line takes.
#include <gtest/gtest.h>

#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using kp::test::runCommand;
using kp::test::shellQuote;

TEST(KpcoreManual, RendersWithoutWarnings) {
  const auto page = runCommand(std::string(KPCORE_PATH) + " --man | groff -man -Tutf8 -ww -z 2>&1");
  EXPECT_EQ(page.status, 0);
  EXPECT_EQ(page.output, "");
  const auto text = runCommand(std::string(KPCORE_PATH) + " --man | groff -man -Tutf8 -P-cbou 2>&1");
  // Escaped hyphens and dots come out as typed.
  EXPECT_NE(text.output.find("kpcore date round DATE --to 15m|1h"), std::string::npos) << text.output;
  EXPECT_NE(text.output.find("EXIT STATUS"), std::string::npos);
}

TEST(KpcoreManual, CompletesCommandsActionsOptionsAndValues) {
  const kp::test::TempDir dir;
  const std::string script = (dir.path() / "kpcore").string();
  ASSERT_EQ(runCommand(std::string(KPCORE_PATH) + " --bash-completion > " + shellQuote(script)).status, 0);
  // Each case: the words typed so far (the last one being completed) and the candidates.
  const std::pair<std::string, std::string> cases[] = {
      {"kpcore ca", "cache"},
      {"kpcore --v", "--version"},
      {"kpcore cookies ", "clear list"},
      {"kpcore cache --dir /tmp l", "list"},
      {"kpcore cache list --g", "--group"},
      {"kpcore cache list ", ""},  // nothing of its own: the shell offers file names
      {"kpcore get --priority ", "high low normal"},
      {"kpcore units format --width n", "narrow"},
      {"kpcore plist --to ", "binary json xml"},
      {"kpcore nosuch --", ""},
  };
  for (const auto& [typed, expected] : cases) {
    const std::string program =
        "source " + shellQuote(script) + "; COMP_LINE=" + shellQuote(typed) +
        "; read -ra COMP_WORDS <<< \"$COMP_LINE\"; [[ $COMP_LINE == *' ' ]] && "
        "COMP_WORDS+=(''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _kpcore; echo \"${COMPREPLY[*]}\"";
    const auto result = runCommand("bash -c " + shellQuote(program) + " 2>&1");
    EXPECT_EQ(result.status, 0) << typed;
    EXPECT_EQ(result.output, expected + "\n") << typed;
  }
  // A file option completes file names.
  const auto files = runCommand("cd " + shellQuote(dir.path().string()) + " && bash -c " +
                                shellQuote("source kpcore; COMP_WORDS=(kpcore get --output kp); COMP_CWORD=3; _kpcore; "
                                           "echo \"${COMPREPLY[*]}\"") +
                                " 2>&1");
  EXPECT_EQ(files.output, "kpcore\n");
}

}  // namespace
