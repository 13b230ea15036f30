// libFuzzer targets from one source: fuzz_pkcs12 (the input as bundle, certificate, stored key),
// fuzz_ini_reader (as INI, soap.ini, ldap.ini), fuzz_dn_text (as names and subjects). A broken
// invariant aborts; refusals leave outputs untouched.
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "engine/LdapOp.h"
#include "platform/Crypto.h"
#include "platform/System.h"

#define CHECK(c) ((c) ? (void)0 : (std::fprintf(stderr, "line %d: %s\n", __LINE__, #c), abort()))

namespace {

using Bytes = std::vector<unsigned char>;
std::string const kUntouched = std::string(1, '\0') + "untouched";  // no C string equals it
auto const npos = std::string::npos;

std::string Lower(std::string text) {
    CLdapOp::MakeLower(text);
    return text;
}

#if defined(FUZZ_PKCS12)
// Under the seeds' password "fuzz" (corpus/README.md) and "", the only one for a bundle without a
// MAC: sizes, then buffers of exactly those sizes on the heap; keys out are ones Convert2Key takes.
int Fuzz(Bytes const& in) {
    int const n = static_cast<int>(in.size());
    unsigned int need = 0;
    for (char const* pw : {"fuzz", ""})
        for (bool legacy : {false, true}) {
            unsigned int cl = 0, kl = 0;
            if (!GetKeyFromPfx(in.data(), n, pw, nullptr, cl, nullptr, kl, legacy))
                continue;
            Bytes cert(cl), key(kl);
            CHECK(GetKeyFromPfx(in.data(), n, pw, cert.data(), cl, key.data(), kl, legacy) &&
                  cl == cert.size() && kl == key.size() &&
                  Convert2Key(key.data(), kl, "fuzz", nullptr, need));
        }
    tagCERT info;  // described, or refused with the record zeroed
    std::memset(&info, 0xa5, sizeof info);
    bool const ok = GetCertInfo(in.data(), n, info);
    for (size_t i = 0; i < (ok ? sizeof info.reserved : sizeof info); ++i)
        CHECK(reinterpret_cast<unsigned char const*>(&info)[i] == 0);
    Bytes key = in;  // a stored key opened in place, or left as it was
    unsigned int len = static_cast<unsigned int>(key.size());
    CHECK(DecryptKey(key.data(), len, "fuzz") != 0 ? key == in && len == in.size()
                                                   : len > 0 && len <= in.size());
    return 0;
}
#elif defined(FUZZ_INI_READER)
// A value found is one line's text without blanks or CR at either end.
std::string Get(std::string const& section, std::string const& key, std::string const& text) {
    std::string value = kUntouched;
    if (!CSystem::GetProfileStrValue(section, key, "fuzz.ini", value))
        return CHECK(value == kUntouched), value;
    CHECK(value.find('\n') == npos && text.find(value) != npos &&
          (value.empty() || (std::string(" \t\r").find(value.front()) == npos &&
                             std::string(" \t\r").find(value.back()) == npos)));
    return value;
}

template <size_t N>  // a loaded name or setting: ends within its field, comes from the file
bool FromFile(char const (&field)[N], std::string const& file) {
    return std::memchr(field, '\0', N) != nullptr && file.find(field) != npos;
}

int Fuzz(Bytes const& data) {
    static std::string const dir = [] {  // ours, named by QORLDAP_CONF_DIR, removed at exit
        std::string path = std::filesystem::temp_directory_path() / "qorldap-fuzz-XXXXXX";
        CHECK(mkdtemp(&path[0]) != nullptr && setenv("QORLDAP_CONF_DIR", path.c_str(), 1) == 0);
        std::atexit([] { std::filesystem::remove_all(getenv("QORLDAP_CONF_DIR")); });
        return path;
    }();
    std::string const input(data.begin(), data.end());
    for (char const* name : {"fuzz.ini", "soap.ini", "ldap.ini"})
        CHECK(std::ofstream(dir + "/" + name, std::ios::binary) << input);
    // Keys under their sections: the same answer in lower case with blanks around.
    std::istringstream lines(input);
    std::string line, section;
    for (int asked = 0; std::getline(lines, line);) {
        size_t const open = line.find('['), close = line.find(']'), eq = line.find('=');
        if (open < close && close != npos)
            section = line.substr(open + 1, close - open - 1);
        else if (eq != npos && asked++ < 8)
            CHECK(Get(" \t" + Lower(section) + "\t ", Lower(line.substr(0, eq)) + " ", input) ==
                  Get(section, line.substr(0, eq), input));
    }
    CLdapOp engine;
    int const n = engine.TemplateCount();
    CHECK((n == 0) == (engine.Templates() == nullptr));
    for (int i = 0; i < n; ++i) {
        tagAtt const& t = engine.Templates()[i];
        CHECK(FromFile(t.objectClass, input) && FromFile(t.namingAtt, input) &&
              t.templateIndex == i && t.templateCount == n && t.items == nullptr);
    }
    LdapInfo info;
    engine.GetLdapAtt(info);
    CHECK(FromFile(info.host, input) && FromFile(info.basedn, input) &&
          FromFile(info.managerdn, input) && FromFile(info.psw, input));
    return 0;
}
#elif defined(FUZZ_DN_TEXT)
int Fuzz(Bytes const& data) {
    std::string const raw(data.begin(), data.end()), dn(raw.c_str());  // as a C caller passes it
    for (int index = -1; index <= 51; ++index) {  // one component: "type=value", or bare text
        std::string value = kUntouched, type = kUntouched;
        bool const ok = CLdapOp::GetFilter(dn.c_str(), index, value, type);
        CHECK((!ok || (index >= 0 && index <= 50)) &&
              (!ok || value == kUntouched
                   ? value == kUntouched && type == kUntouched
                   : type.find_first_of(",=") == npos && value.find(',') == npos &&
                         dn.find(type == value ? type : type + "=" + value) != npos));
    }
    std::string parent = kUntouched;  // what follows a comma, or all of a single component
    CHECK(CLdapOp::GetParentDN(dn.c_str(), parent)
              ? parent.size() <= dn.size() && dn.rfind(parent) == dn.size() - parent.size() &&
                    (parent == dn || dn[dn.size() - parent.size() - 1] == ',')
              : parent == kUntouched);
    std::string const key = dn.substr(dn.size() / 2, 2), subject = dn;  // a key from within
    std::string value = kUntouched;
    CHECK(CLdapOp::ParseSubject(subject.c_str(), key.c_str(), value)
              ? Lower(value) == value && Lower(subject).find(value) != npos
              : value == kUntouched);
    return 0;
}
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    return size > 64 * 1024 ? 0 : Fuzz(Bytes(data, data + size));  // exactly the input's bytes
}
