// Each command's options live once, in its table in commands/; its help text, the manual page
// and the bash completion must name every one of them, and nothing else. The option tables are
// what the tool takes, so these tests read them and the two files as shipped.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tools/cli.h"

namespace {

using qortool::Command;
using qortool::Commands;
using qortool::GlobalOptions;
using qortool::Option;
using Names = std::set<std::string>;

std::string Read(std::string const& relative) {
    std::ifstream in(std::string(QORLDAP_SOURCE_DIR) + "/" + relative);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Every option a text names: --long and -x words, standing alone (not "-LLL", "aes-256-cbc").
Names OptionsIn(std::string const& text) {
    static std::regex const option(
        R"((^|[\s\[(,|"=])(--[a-z][a-z0-9-]*|-[A-Za-z])(?=$|[\s\]),|"=]))");
    Names found;
    for (std::sregex_iterator it(text.begin(), text.end(), option), end; it != end; ++it)
        found.insert((*it)[2]);
    return found;
}

Names Spelled(std::vector<Option> const& options, bool aliases = true) {
    Names names;
    for (Option const& o : options) {
        names.insert(o.name);
        if (aliases && o.alias != nullptr)
            names.insert(o.alias);
    }
    return names;
}

std::string Join(Names const& names) {
    std::string out;
    for (std::string const& n : names)
        out += (out.empty() ? "" : " ") + n;
    return out;
}

// What is in a and not in b.
Names Minus(Names const& a, Names const& b) {
    Names out;
    for (std::string const& n : a) {
        if (b.count(n) == 0)
            out.insert(n);
    }
    return out;
}

// The manual as plain text: "\-" as "-", no font changes.
std::string Manual() {
    std::string const roff = Read("man/qorldap.1");
    return std::regex_replace(std::regex_replace(roff, std::regex(R"(\\f[BIRP])"), ""),
                              std::regex(R"(\\-)"), "-");
}

// The text of a section: from the line starting with head to the next .SS or .SH.
std::string Section(std::string const& manual, std::string const& head) {
    size_t const start = manual.find("\n" + head);
    if (start == std::string::npos)
        return "";
    size_t end = manual.find("\n.S", start + 1);
    return manual.substr(start, end == std::string::npos ? end : end - start);
}

TEST(ToolDocs, EachHelpTextNamesExactlyItsCommandsOptions) {
    Names const global = Spelled(GlobalOptions());
    for (Command const& c : Commands()) {
        Names const own = Spelled(c.options);
        Names const named = OptionsIn(c.help);
        EXPECT_EQ("", Join(Minus(own, named))) << c.name << " --help does not name these";
        Names taken = own;
        taken.insert(global.begin(), global.end());
        EXPECT_EQ("", Join(Minus(named, taken)))
            << c.name << " --help names options it does not take";
        EXPECT_EQ(0u, std::string(c.help).rfind(std::string("usage: qorldap ") + c.name + " ", 0))
            << c.name;
    }
}

TEST(ToolDocs, TheManualDescribesEveryCommandAndOptionAndNoOther) {
    std::string const manual = Manual();
    Names const global = Spelled(GlobalOptions());
    Names sections;
    std::regex const heading("\n\\.SS \"([a-z-]+)");
    for (std::sregex_iterator it(manual.begin(), manual.end(), heading), end; it != end; ++it)
        sections.insert((*it)[1]);
    Names commands;
    Names every = global;
    for (Command const& c : Commands()) {
        commands.insert(c.name);
        Names const own = Spelled(c.options);
        every.insert(own.begin(), own.end());
        Names const named = OptionsIn(Section(manual, std::string(".SS \"") + c.name + " "));
        EXPECT_EQ("", Join(Minus(own, named))) << "the manual's " << c.name << " lacks these";
        Names taken = own;
        taken.insert(global.begin(), global.end());
        EXPECT_EQ("", Join(Minus(named, taken)))
            << "the manual's " << c.name << " names options it does not take";
    }
    EXPECT_EQ(Join(commands), Join(sections));
    EXPECT_EQ(Join(global), Join(OptionsIn(Section(manual, ".SH GLOBAL OPTIONS"))));
    EXPECT_EQ("", Join(Minus(OptionsIn(manual), every))) << "named in the manual, taken by none";
}

// The words of the first shell string assigned to name after from in text.
Names Words(std::string const& text, std::string const& assignment, size_t from = 0) {
    size_t const start = text.find(assignment + "\"", from);
    if (start == std::string::npos)
        return {};
    size_t const open = start + assignment.size() + 1;
    std::istringstream words(text.substr(open, text.find('"', open) - open));
    Names names;
    for (std::string word; words >> word;)
        names.insert(word);
    return names;
}

TEST(ToolDocs, TheCompletionOffersEveryCommandAndOptionAndNoOther) {
    std::string const script = Read("completion/qorldap.bash");
    Names commands{"help"};
    for (Command const& c : Commands())
        commands.insert(c.name);
    EXPECT_EQ(Join(commands), Join(Words(script, "local commands=")));
    EXPECT_EQ(Join(Spelled(GlobalOptions(), false)), Join(Words(script, "local global=")));

    // Each command's branch: "name | other) options="..."".
    std::regex const branch(R"(\n\s*([a-z][a-z| -]*)\)\s*options=")");
    std::map<std::string, Names> offered;
    for (std::sregex_iterator it(script.begin(), script.end(), branch), end; it != end; ++it) {
        std::istringstream labels(std::regex_replace((*it)[1].str(), std::regex("\\|"), " "));
        Names const options = Words(script, "options=", static_cast<size_t>(it->position(0)));
        for (std::string label; labels >> label;)
            offered[label] = options;
    }
    Names values;  // the options whose next word is a value
    for (Option const& o : GlobalOptions()) {
        if (o.takesValue)
            values.insert(o.name);
    }
    for (Command const& c : Commands()) {
        EXPECT_EQ(Join(Spelled(c.options, false)), Join(offered[c.name])) << c.name;
        for (Option const& o : c.options) {
            Names const spellings = Spelled({o});
            if (o.takesValue)
                values.insert(spellings.begin(), spellings.end());
        }
    }
    // The previous word's cases: each value option has one, and only value options do.
    size_t const from = script.find("case $prev in");
    std::string const cases = script.substr(from, script.find("esac", from) - from);
    Names labelled;
    std::regex const label(R"(\n\s*(-[-a-z0-9| ]*)\))");
    for (std::sregex_iterator it(cases.begin(), cases.end(), label), end; it != end; ++it) {
        std::istringstream words(std::regex_replace((*it)[1].str(), std::regex("\\|"), " "));
        for (std::string word; words >> word;)
            labelled.insert(word);
    }
    EXPECT_EQ(Join(values), Join(labelled));
}

}  // namespace
