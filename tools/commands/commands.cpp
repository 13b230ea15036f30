// The table of commands and the options every command takes.
#include "tools/commands/commands.h"

namespace qortool {

std::string Args::Value(std::string const& name, std::string const& fallback) const {
    auto it = values.find(name);
    return it == values.end() ? fallback : it->second;
}

std::vector<Command> const& Commands() {
    static std::vector<Command> const all = [] {
        std::vector<Command> list;
        for (auto part : {KeyCommands(), EntryCommands(), ConfigCommands()}) {
            list.insert(list.end(), part.begin(), part.end());
        }
        list.push_back(ExpiringCommand());
        list.push_back(VerifyCommand());
        list.push_back(AuditCommand());
        list.push_back(ExportCommand());
        list.push_back(ImportCommand());
        return list;
    }();
    return all;
}

std::vector<Option> const& GlobalOptions() {
    static std::vector<Option> const all = {
        {"--conf", nullptr, true},
        {"--timeout", nullptr, true},
        {"--help", "-h", false},
        {"--version", nullptr, false},
    };
    return all;
}

}  // namespace qortool
