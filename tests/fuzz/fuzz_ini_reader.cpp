// Fuzzes the INI reader, CSystem::GetProfileStrValue, over a file holding the input.
//
// Sections and keys to ask for are drawn from the input itself (each key before '=' under the
// text between '[' and ']' above it, also in the other letter case with blanks around), so
// most questions hit. Every answer is checked against the reader's rules as the header
// states them, replayed here line by line, and against the invariants that hold whatever the
// file: a value found has no blanks or CR at either end and no line feed; a value not found is
// left as it was.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "platform/System.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

std::string const kUntouched = "\x01<untouched>\x02";
char const* const kFiles[] = {"fuzz.ini"};

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

std::string Strip(std::string const& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && IsBlank(text[begin]))
        ++begin;
    while (end > begin && IsBlank(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

char Fold(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool SameFolded(std::string const& a, std::string const& b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (Fold(a[i]) != Fold(b[i]))
            return false;
    }
    return true;
}

std::vector<std::string> Lines(std::string const& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t lf = text.find('\n', start);
        if (lf == std::string::npos)
            lf = text.size();
        lines.push_back(text.substr(start, lf - start));
        start = lf + 1;
    }
    return lines;
}

// The reader's rules, one line at a time: comments and lines without "=" are skipped, a
// "[name]" line opens a section, the first matching key of the wanted section wins.
bool Expected(std::vector<std::string> const& lines, std::string const& section,
              std::string const& key, std::string& value) {
    std::string const wantedSection = Strip(section);
    std::string const wantedKey = Strip(key);
    bool inside = false;
    for (std::string const& raw : lines) {
        std::string const line = Strip(raw);
        if (line.empty() || line[0] == ';' || line[0] == '#')
            continue;
        if (line[0] == '[') {
            size_t close = line.find(']');
            inside = close != std::string::npos &&
                     SameFolded(Strip(line.substr(1, close - 1)), wantedSection);
            continue;
        }
        size_t eq = line.find('=');
        if (!inside || eq == std::string::npos)
            continue;
        if (SameFolded(Strip(line.substr(0, eq)), wantedKey)) {
            value = Strip(line.substr(eq + 1));
            return true;
        }
    }
    return false;
}

std::string FlipCase(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - ('a' - 'A'));
        } else if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c + ('a' - 'A'));
        }
    }
    return text;
}

void Ask(std::string const& file, std::vector<std::string> const& lines, std::string const& section,
         std::string const& key) {
    std::string value = kUntouched;
    bool const found = CSystem::GetProfileStrValue(section, key, file, value);
    std::string expected;
    bool const wanted = Expected(lines, section, key, expected);
    if (!found) {
        FUZZ_CHECK(value == kUntouched);
        FUZZ_CHECK(!wanted);
        return;
    }
    FUZZ_CHECK(wanted);
    FUZZ_CHECK(value == expected);
    FUZZ_CHECK(value.find('\n') == std::string::npos);
    if (!value.empty()) {
        FUZZ_CHECK(value.front() != ' ' && value.front() != '\t');
        FUZZ_CHECK(value.back() != ' ' && value.back() != '\t' && value.back() != '\r');
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QORLDAP_CONF_DIR", qorfuzz::ScratchDir().c_str(), 1);
    std::atexit([] { qorfuzz::RemoveScratch(kFiles, 1); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const text(reinterpret_cast<char const*>(data), size);
    std::string const path = qorfuzz::WriteScratch("fuzz.ini", data, size);
    std::vector<std::string> const lines = Lines(text);

    // Questions drawn from the input's own lines: each key under the section it stands in
    // (as written, and in the other letter case with blanks around), up to 8 keys, and a
    // few that name what may not be there at all.
    std::vector<std::pair<std::string, std::string>> questions = {{"", ""}, {"ldap", "host"}};
    std::string section;
    int asked = 0;
    for (std::string const& line : lines) {
        size_t const open = line.find('[');
        size_t const close = line.find(']');
        if (open != std::string::npos && close != std::string::npos && open < close) {
            section = line.substr(open + 1, close - open - 1);
            continue;
        }
        size_t const eq = line.find('=');
        if (eq == std::string::npos || asked == 8)
            continue;
        std::string const key = line.substr(0, eq);
        questions.emplace_back(section, key);
        questions.emplace_back(" \t" + FlipCase(section) + "\t ", FlipCase(key) + " ");
        questions.emplace_back(section + "x", key);
        ++asked;
    }
    for (auto const& q : questions) {
        // The bare name is looked for in QORLDAP_CONF_DIR.
        Ask("fuzz.ini", lines, q.first, q.second);
    }
    // A name with a '/' is used as it is, and the answers are the same.
    Ask(path, lines, questions.back().first, questions.back().second);
    // A missing file is "not found", with the value untouched.
    std::string value = kUntouched;
    FUZZ_CHECK(!CSystem::GetProfileStrValue(section, "host", "missing.ini", value));
    FUZZ_CHECK(value == kUntouched);
    FUZZ_CHECK(!CSystem::GetProfileStrValue(section, "host", "", value));
    FUZZ_CHECK(value == kUntouched);
    return 0;
}
