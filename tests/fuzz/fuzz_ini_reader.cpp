// Fuzzes CSystem::GetProfileStrValue over a file holding the input and a section of ours, asking
// for the input's own sections and keys. A value found is one line's text without blanks or CR
// at either end; one not found is left as it was; letter case and blanks around the names, and
// a bare name against a full path, change nothing; our section's key is found in any case.
#include <cctype>

#include "platform/System.h"
#include "tests/fuzz/FuzzCheck.h"

using qorfuzz::kUntouched;

namespace {

std::string FlipCase(std::string text, int flip = 0x20) {
    for (char& c : text) {
        if (std::isalpha(static_cast<unsigned char>(c)))
            c = static_cast<char>(flip != 0 ? c ^ flip : std::tolower(c));
    }
    return text;
}

std::string Ask(std::string const& file, std::string const& text, std::string const& section,
                std::string const& key) {
    std::string value = kUntouched;
    if (!CSystem::GetProfileStrValue(section, key, file, value))
        return FUZZ_CHECK(value == kUntouched), value;
    FUZZ_CHECK(value.find('\n') == std::string::npos && text.find(value) != std::string::npos);
    FUZZ_CHECK(value.empty() || (std::string(" \t\r").find(value.front()) == std::string::npos &&
                                 std::string(" \t\r").find(value.back()) == std::string::npos));
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string const input(reinterpret_cast<char const*>(data), size);
    std::string const text = input + "\n[QorFuzz]\n  Trailer Key =\tits value \r\n";
    std::string const path = qorfuzz::WriteScratch("fuzz.ini", text.data(), text.size());
    if (FlipCase(input, 0).find("qorfuzz") == std::string::npos)  // else the input's may win
        FUZZ_CHECK(Ask("fuzz.ini", text, "qorfuzz", "TRAILER KEY") == "its value");
    Ask("fuzz.ini", text, "", "");

    // Each key (up to 8) under the section it stands in, as written and in the other letter
    // case with blanks around: the same answer. A bare name is looked for in QORLDAP_CONF_DIR;
    // a name with a '/' is used as it is: the same answer again.
    std::string section;
    int asked = 0;
    for (size_t start = 0, lf; start < input.size() && asked < 8; start = lf + 1) {
        lf = std::min(input.find('\n', start), input.size());
        std::string const line = input.substr(start, lf - start);
        size_t const open = line.find('['), close = line.find(']'), eq = line.find('=');
        if (open != std::string::npos && close != std::string::npos && open < close) {
            section = line.substr(open + 1, close - open - 1);
        } else if (eq != std::string::npos) {
            std::string const key = line.substr(0, eq);
            std::string const plain = Ask("fuzz.ini", text, section, key);
            FUZZ_CHECK(Ask("fuzz.ini", text, " \t" + FlipCase(section) + "\t ",
                           FlipCase(key) + " ") == plain);
            FUZZ_CHECK(Ask(path, text, section, key) == plain);
            ++asked;
        }
    }
    // A missing file, or no file name, is "not found" with the value untouched.
    std::string value = kUntouched;
    FUZZ_CHECK(!CSystem::GetProfileStrValue(section, "host", "missing.ini", value));
    FUZZ_CHECK(!CSystem::GetProfileStrValue(section, "host", "", value) && value == kUntouched);
    return 0;
}
