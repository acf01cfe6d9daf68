// The completion of bash.

#include "arguments.h"
#include "child_process.h"
#include "scratch_folder.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <set>

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;

namespace {

/// What bash offers for the last of these words, in the scratch folder. An equals sign is a separate word.
std::vector<std::string> offered(const std::string &words, const std::string &folder = "/") {
    const std::string script =
        ". " COMPLETION "; compopt() { :; }; cd " + folder + "; COMP_WORDS=(vigmond-log " + words +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vigmond_log vigmond-log \"${COMP_WORDS[COMP_CWORD]}\" "
        "\"${COMP_WORDS[COMP_CWORD - 1]}\"; printf '%s\\n' \"${COMPREPLY[@]}\"";
    const CommandResult result = run_command({"bash", "-uc", script});
    EXPECT_EQ(result.status, 0) << words;
    return result.output;
}

} // namespace

TEST(Completion, OffersTheCommandsFirst) {
    EXPECT_THAT(offered("s"), IsSupersetOf({"show", "summary"}));
    EXPECT_THAT(offered("ex"), Contains("export"));
    EXPECT_THAT(offered("show s"), Not(Contains("summary")));
}

TEST(Completion, OffersTheValuesOfOptions) {
    EXPECT_THAT(offered("export --format = o"), ElementsAre("openmetrics"));
    EXPECT_THAT(offered("show --state F"), ElementsAre("FAIL"));
    EXPECT_THAT(offered("show --issue = CB3"), ElementsAre("CB30", "CB31", "CB32"));
    EXPECT_THAT(offered("show --since = y"), ElementsAre("yesterday"));
}

TEST(Completion, OffersFilesAlsoOfAStation) {
    const ScratchFolder folder;
    folder.write("logfile", "");
    EXPECT_THAT(offered("show lo", folder.path()), ElementsAre("logfile"));
    EXPECT_THAT(offered("show north=lo", folder.path()), ElementsAre("logfile"));
}

// Those of --help.
TEST(Completion, OffersEachOption) {
    const std::string usage = vlog::USAGE;
    const std::regex pattern("  (--[a-z]+)|, (--[a-z]+)|export (--[a-z]+)");
    std::set<std::string> options;
    for (auto match = std::sregex_iterator(usage.begin(), usage.end(), pattern); match != std::sregex_iterator();
         ++match) {
        options.insert((*match)[1].str() + (*match)[2].str() + (*match)[3].str());
    }
    std::set<std::string> completed;
    for (const std::string &option : offered("show --")) {
        completed.insert(option.substr(0, option.find('=')));
    }
    EXPECT_EQ(completed, options);
    EXPECT_GE(options.size(), 12U);
}
