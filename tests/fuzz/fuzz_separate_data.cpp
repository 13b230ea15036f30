// Fuzzes the schema loader: SeparateData on the input and its lines, then an engine over the
// input as ldap.ini and soap.ini. Loaded names and settings end within their fields and come
// from the file; lookups copy a whole template or nothing; a reload gives the same table.
#include <sstream>

#include "engine/LdapOp.h"
#include "tests/fuzz/FuzzCheck.h"

using qorfuzz::kUntouched;

namespace {

template <size_t N>
bool FromFile(char const (&field)[N], std::string const& file) {
    return std::memchr(field, '\0', N) != nullptr && file.find(field) != std::string::npos;
}

void CheckSeparateData(CLdapOp& engine, std::string const& text) {
    std::string name = kUntouched, code = kUntouched;
    int role = -0x5a5a5a5;
    if (!engine.SeparateData(text, name, code, role))
        return FUZZ_CHECK(name == kUntouched && code == kUntouched && role == -0x5a5a5a5);
    // "name", or "name,code" or "name,code,role": the parts put back give the text's start.
    FUZZ_CHECK(!name.empty() && name.find(',') == std::string::npos &&
               code.find(',') == std::string::npos);
    FUZZ_CHECK(text.find(',') == std::string::npos ? name == text && code == text
                                                   : text.find(name + "," + code) == 0);
}

void CheckTable(CLdapOp& engine, std::string const& file) {
    int const n = engine.TemplateCount();
    tagAtt const* table = engine.Templates();
    FUZZ_CHECK(n >= 0 && (n == 0) == (table == nullptr));
    for (int i = 0; i < n; ++i) {
        tagAtt const& t = table[i];
        FUZZ_CHECK(FromFile(t.objectClass, file) && FromFile(t.namingAtt, file) &&
                   t.templateIndex == i && t.templateCount == n && t.items == nullptr &&
                   t.itemCount == 0 && t.dn[0] == '\0');
    }
}

// A name found copies the first template of that name whole; an unknown one changes nothing.
void CheckLookup(CLdapOp& engine, char const* name) {
    tagAtt out, before;
    std::memset(&out, qorfuzz::kFill, sizeof out);
    std::memcpy(&before, &out, sizeof out);
    engine.GetLdapOpAtt(name, out);
    tagAtt const* end = engine.Templates() + engine.TemplateCount();
    tagAtt const* found = std::find_if(engine.Templates(), end, [&](tagAtt const& t) {
        return std::strcmp(t.objectClass, name) == 0;
    });
    FUZZ_CHECK(std::memcmp(&out, found == end ? &before : found, sizeof out) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    qorfuzz::WriteScratch("ldap.ini", data, size);
    qorfuzz::WriteScratch("soap.ini", data, size);
    std::string const text(reinterpret_cast<char const*>(data), size);
    CLdapOp engine;

    CheckSeparateData(engine, text);
    std::istringstream lines(text);
    std::string line;
    for (int n = 0; n < 64 && std::getline(lines, line); ++n) {
        CheckSeparateData(engine, line);
        if (line.find('=') != std::string::npos)  // a definition's text, "A0=cn,s,2"
            CheckSeparateData(engine, line.substr(line.find('=') + 1));
    }

    CheckTable(engine, text);
    std::string const first = text.substr(0, text.find('\n'));
    CheckLookup(engine, first.c_str());
    if (engine.TemplateCount() > 0)
        CheckLookup(engine, engine.Templates()[engine.TemplateCount() - 1].objectClass);
    std::string condition;
    int kind = -1;
    bool const named = engine.GetCondition(first.c_str(), condition, kind);
    FUZZ_CHECK(kind == (named ? 1 : 0));  // 1: a cn name under a template named by cn

    // soap.ini's settings end within their fields and come from the file.
    LdapInfo info;
    std::memset(&info, qorfuzz::kFill, sizeof info);
    engine.GetLdapAtt(info);
    FUZZ_CHECK(FromFile(info.host, text) && FromFile(info.basedn, text) &&
               FromFile(info.managerdn, text) && FromFile(info.psw, text));

    // A reload over the same engine starts afresh and gives the same table.
    int const before = engine.TemplateCount();
    engine.ReadConfig();
    FUZZ_CHECK(engine.TemplateCount() == before);
    CheckTable(engine, text);
    return 0;
}
