// Fuzzes the schema loader: SeparateData on the input and on each of its lines, then the whole
// input written as ldap.ini (and as soap.ini) in a scratch folder named by QORLDAP_CONF_DIR and
// an engine built over it.
//
// The loaded table is compared with what the file says it must hold: the loader's rules are
// replayed here over the INI reader (fuzzed on its own by fuzz_ini_reader), so a table that
// loads when it should not, or holds other names than the file's, is caught, not only a crash.
#include <strings.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/Constants.h"
#include "engine/LdapOp.h"
#include "platform/System.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

std::string const kUntouched = "\x01<untouched>\x02";
int const kUntouchedRole = -0x5a5a5a5;
char const* const kFiles[] = {"ldap.ini", "soap.ini"};

template <size_t N>
bool HoldsNul(char const (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}

template <size_t N>
bool AllZero(char const (&field)[N]) {
    for (char c : field) {
        if (c != '\0')
            return false;
    }
    return true;
}

int ReadRole(std::string const& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

void CheckSeparateData(CLdapOp& engine, std::string const& text) {
    std::string name = kUntouched;
    std::string code = kUntouched;
    int role = kUntouchedRole;
    bool const ok = engine.SeparateData(text, name, code, role);
    std::string::size_type const first = text.find(',');
    bool const refuse =
        text.empty() || first == 0 || (first != std::string::npos && first + 1 == text.size());
    if (!ok) {
        FUZZ_CHECK(refuse);
        FUZZ_CHECK(name == kUntouched && code == kUntouched && role == kUntouchedRole);
        return;
    }
    FUZZ_CHECK(!refuse);
    FUZZ_CHECK(text.compare(0, name.size(), name) == 0);
    FUZZ_CHECK(name.find(',') == std::string::npos);
    FUZZ_CHECK(!name.empty());
    if (first == std::string::npos) {
        // No comma: the whole text is name and code, and the role reads from it.
        FUZZ_CHECK(name == text && code == text);
        FUZZ_CHECK(role == ReadRole(text));
        return;
    }
    // "name,code" or "name,code,role...": the parts put back together give the text.
    FUZZ_CHECK(code.find(',') == std::string::npos);
    std::string const head = name + "," + code;
    FUZZ_CHECK(text.compare(0, head.size(), head) == 0);
    if (head.size() == text.size()) {
        FUZZ_CHECK(role == ReadRole(code));
    } else {
        FUZZ_CHECK(text[head.size()] == ',');
        FUZZ_CHECK(role == ReadRole(text.substr(head.size() + 1)));
    }
}

std::string Key(long index) {
    return "A" + std::to_string(index);
}

struct ExpectedTemplate {
    std::string objectClass;
    std::string namingAtt;
};

bool Get(std::string const& section, std::string const& key, std::string& value) {
    return CSystem::GetProfileStrValue(section, key, LDAP_INI, value);
}

// The rules the loader follows: "sum" of section "base" counts templates (1..1000), "A<i>"
// names each template's section; a template's "sum" counts definitions (at least 1), each
// "A<j>" must split, at most three name the entry (role 2, the last one counts) and every
// name must fit its 255 characters. Any broken template refuses the whole file.
bool ExpectedTable(CLdapOp& engine, std::vector<ExpectedTemplate>& table) {
    std::string text;
    if (!Get("base", "sum", text))
        return false;
    long const count = std::strtol(text.c_str(), nullptr, 10);
    if (count < 1 || count > 1000)
        return false;
    for (long i = 0; i < count; ++i) {
        std::string section;
        if (!Get("base", Key(i), section) || section.empty())
            return false;
        if (!Get(section, "sum", text))
            return false;
        long const definitions = std::strtol(text.c_str(), nullptr, 10);
        if (definitions < 1)
            return false;
        ExpectedTemplate tmpl;
        int naming = 0;
        for (long j = 0; j < definitions; ++j) {
            std::string definition;
            std::string name;
            std::string code;
            int role = 0;
            if (!Get(section, Key(j), definition) ||
                !engine.SeparateData(definition, name, code, role)) {
                return false;
            }
            if (role == 2) {
                if (++naming > 3 || std::strlen(name.c_str()) > 255)
                    return false;
                tmpl.namingAtt = name.c_str();
            }
        }
        if (std::strlen(section.c_str()) > 255)
            return false;
        tmpl.objectClass = section.c_str();
        table.push_back(tmpl);
    }
    return true;
}

void CheckTable(CLdapOp& engine) {
    int const n = engine.TemplateCount();
    tagAtt const* table = engine.Templates();
    FUZZ_CHECK(n >= 0);
    FUZZ_CHECK((n == 0) == (table == nullptr));
    std::vector<ExpectedTemplate> expected;
    if (!ExpectedTable(engine, expected)) {
        FUZZ_CHECK(n == 0);
        return;
    }
    FUZZ_CHECK(static_cast<size_t>(n) == expected.size());
    for (int i = 0; i < n; ++i) {
        tagAtt const& t = table[i];
        FUZZ_CHECK(HoldsNul(t.objectClass));
        FUZZ_CHECK(HoldsNul(t.namingAtt));
        FUZZ_CHECK(t.templateIndex == i);
        FUZZ_CHECK(t.templateCount == n);
        FUZZ_CHECK(t.items == nullptr && t.itemCount == 0);
        FUZZ_CHECK(AllZero(t.dn) && AllZero(t.parentDn));
        FUZZ_CHECK(expected[static_cast<size_t>(i)].objectClass == t.objectClass);
        FUZZ_CHECK(expected[static_cast<size_t>(i)].namingAtt == t.namingAtt);
    }
}

// A template is looked up by its exact object class, the first of equal names winning; an
// unknown name leaves the output as it was.
void CheckLookup(CLdapOp& engine, char const* name) {
    tagAtt out;
    std::memset(&out, 0xa5, sizeof out);
    tagAtt before;
    std::memcpy(&before, &out, sizeof out);
    engine.GetLdapOpAtt(name, out);
    tagAtt const* table = engine.Templates();
    for (int i = 0; i < engine.TemplateCount(); ++i) {
        if (std::strcmp(table[i].objectClass, name) == 0) {
            FUZZ_CHECK(std::memcmp(&out, &table[i], sizeof out) == 0);
            return;
        }
    }
    FUZZ_CHECK(std::memcmp(&out, &before, sizeof out) == 0);
}

void CheckCondition(CLdapOp& engine, char const* name) {
    std::string condition = kUntouched;
    int kind = -1;
    bool const ok = engine.GetCondition(name, condition, kind);
    FUZZ_CHECK(kind == (ok ? 1 : 0));
    if (ok) {
        FUZZ_CHECK(engine.TemplateCount() > 0);
        FUZZ_CHECK(strcasecmp(engine.Templates()[engine.TemplateCount() - 1].namingAtt, "cn") == 0);
        FUZZ_CHECK(std::strncmp(name, "cn", 2) == 0 &&
                   (name[2] == '\0' || name[2] == ',' || name[2] == '='));
    }
}

// soap.ini's settings: every text ends within its field and is the start of the file's value.
void CheckSettings(CLdapOp& engine) {
    LdapInfo info;
    std::memset(&info, 0xa5, sizeof info);
    engine.GetLdapAtt(info);
    FUZZ_CHECK(HoldsNul(info.host) && HoldsNul(info.basedn) && HoldsNul(info.managerdn) &&
               HoldsNul(info.psw));
    struct {
        char const* key;
        char const* field;
    } const texts[] = {{"host", info.host},
                       {"basedn", info.basedn},
                       {"managerdn", info.managerdn},
                       {"psw", info.psw}};
    for (auto const& t : texts) {
        std::string value;
        if (CSystem::GetProfileStrValue("ldap", t.key, SOAP_INI, value)) {
            FUZZ_CHECK(std::strncmp(value.c_str(), t.field, std::strlen(t.field)) == 0);
        } else {
            FUZZ_CHECK(t.field[0] == '\0');
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("QORLDAP_CONF_DIR", qorfuzz::ScratchDir().c_str(), 1);
    std::atexit([] { qorfuzz::RemoveScratch(kFiles, 2); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    qorfuzz::WriteScratch("ldap.ini", data, size);
    qorfuzz::WriteScratch("soap.ini", data, size);
    CLdapOp engine;

    std::string const text(reinterpret_cast<char const*>(data), size);
    CheckSeparateData(engine, text);
    std::string::size_type start = 0;
    for (int lines = 0; lines < 64 && start < text.size(); ++lines) {
        std::string::size_type lf = text.find('\n', start);
        std::string line =
            text.substr(start, lf == std::string::npos ? std::string::npos : lf - start);
        CheckSeparateData(engine, line);
        std::string::size_type eq = line.find('=');
        if (eq != std::string::npos) {
            CheckSeparateData(engine, line.substr(eq + 1));
        }
        if (lf == std::string::npos)
            break;
        start = lf + 1;
    }

    CheckTable(engine);
    CheckSettings(engine);
    std::string const first = text.substr(0, text.find('\n'));
    CheckLookup(engine, first.c_str());
    if (engine.TemplateCount() > 0) {
        CheckLookup(engine, engine.Templates()[engine.TemplateCount() - 1].objectClass);
    }
    CheckCondition(engine, first.c_str());
    CheckCondition(engine, "cn=fuzz,o=qor");

    // A second load over the same engine gives the same table (a reload starts afresh).
    int const before = engine.TemplateCount();
    engine.ReadConfig();
    FUZZ_CHECK(engine.TemplateCount() == before);
    CheckTable(engine);
    return 0;
}
