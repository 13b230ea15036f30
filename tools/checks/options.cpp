// Reading options with getopt_long: attached values (-oFILE, --output=FILE), unique prefixes of
// long names, "--" to end the options, options before and after the words they qualify.
#include <getopt.h>

#include "tools/cli.h"

namespace qortool {

namespace {

// Long options are told apart by their index; short ones come back as their letter.
int const kFirstLong = 256;

Option const* ByCode(std::vector<Option> const& options, int code) {
    if (code >= kFirstLong && code - kFirstLong < static_cast<int>(options.size()))
        return &options[static_cast<size_t>(code - kFirstLong)];
    for (Option const& o : options) {
        if (o.alias != nullptr && o.alias[1] == code)
            return &o;
    }
    return nullptr;
}

// "unknown option --x", or which options an abbreviation could mean.
std::string Unknown(std::vector<Option> const& options, std::string const& word) {
    std::string const name = word.substr(0, word.find('='));
    std::string candidates;
    int count = 0;
    for (Option const& o : options) {
        if (name.size() > 2 && std::string(o.name).compare(0, name.size(), name) == 0) {
            candidates += std::string(count++ == 0 ? "" : ", ") + o.name;
        }
    }
    if (count > 1)
        return "ambiguous option " + name + " (" + candidates + ")";
    return "unknown option " + name;
}

}  // namespace

size_t ReadOptions(std::string const& what, std::vector<Option> const& options,
                   std::vector<std::string> const& words, bool untilWord, Args& args) {
    std::vector<struct option> table;
    // Non-options come back in order as code 1 ('-'), or end the reading ('+'); ':' reports a
    // missing value apart from an unknown option.
    std::string shorts = untilWord ? "+:" : "-:";
    for (size_t i = 0; i < options.size(); ++i) {
        Option const& o = options[i];
        table.push_back({o.name + 2, o.takesValue ? required_argument : no_argument, nullptr,
                         kFirstLong + static_cast<int>(i)});
        if (o.alias != nullptr) {
            shorts += o.alias[1];
            if (o.takesValue)
                shorts += ':';
        }
    }
    table.push_back({nullptr, 0, nullptr, 0});

    // getopt wants a program name first and writable pointers; it only reorders the pointers.
    std::vector<std::string> copy{"qorldap"};
    copy.insert(copy.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : copy)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);
    int const argc = static_cast<int>(copy.size());

    std::string const where = untilWord && what.empty() ? " before the command" : "";
    opterr = 0;
    optind = 0;  // starts getopt afresh
    for (;;) {
        int code = getopt_long(argc, argv.data(), shorts.c_str(), table.data(), nullptr);
        if (code == -1)
            break;
        if (code == 1) {
            args.positional.push_back(optarg);
            continue;
        }
        if (code == '?') {
            Option const* known = ByCode(options, optopt);
            if (known != nullptr)
                Usage(what, std::string(known->name) + " takes no value");
            if (optopt != 0)
                Usage(what, std::string("unknown option -") + static_cast<char>(optopt) + where);
            Usage(what, Unknown(options, argv[optind - 1]) + where);
        }
        Option const* found = ByCode(options, code == ':' ? optopt : code);
        if (found == nullptr)
            Usage(what, "unknown option" + where);
        if (code == ':')
            Usage(what, std::string(found->name) + " needs a value");
        if (found->takesValue) {
            args.values[found->name] = optarg;
        } else {
            args.flags.insert(found->name);
        }
    }
    size_t next = static_cast<size_t>(optind - 1);
    if (!untilWord) {
        args.positional.insert(args.positional.end(), words.begin() + static_cast<long>(next),
                               words.end());
        next = words.size();
    }
    return next;
}

}  // namespace qortool
