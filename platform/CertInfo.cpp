// The subject of a certificate as "type=value" lines; see platform/CertInfo.h.
#include "platform/CertInfo.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "platform/CryptoContext.h"
#include "platform/NameText.h"
#include "platform/OsslPtr.h"

namespace {

// Appends text to the subject buffer, keeping room for the final NUL.
bool Append(char* buf, size_t cap, size_t& used, char const* text, size_t len) {
    if (len >= cap - used)
        return false;
    std::memcpy(buf + used, text, len);
    used += len;
    buf[used] = '\0';
    return true;
}

std::string& Fault() {
    thread_local std::string fault;
    return fault;
}

}  // namespace

std::string LastCertInfoFault() {
    return Fault();
}

bool GetCertInfo(unsigned char const* cert, int certLen, tagCERT& info) {
    std::memset(&info, 0, sizeof info);
    Fault() = "the certificate does not parse";
    if (cert == nullptr || certLen <= 0)
        return false;
    OSSL_LIB_CTX* ctx = qor::FullCryptoContext();
    if (ctx == nullptr)
        return false;
    qor::ErrorScope errors;

    X509Ptr x509(X509_new_ex(ctx, nullptr));
    if (x509 == nullptr)
        return false;
    unsigned char const* p = cert;
    if (!qor::DecodeInto(x509, [&](X509** object) { return d2i_X509(object, &p, certLen); }))
        return false;

    char* const out = info.subject;
    size_t const cap = sizeof info.subject;
    size_t used = 0;
    bool ok = true;
    X509_NAME const* name = X509_get_subject_name(x509.get());
    int const count = X509_NAME_entry_count(name);
    for (int i = 0; ok && i < count; ++i) {
        X509_NAME_ENTRY const* entry = X509_NAME_get_entry(name, i);
        ASN1_OBJECT const* obj = X509_NAME_ENTRY_get_object(entry);
        char oid[128];
        char const* type = nullptr;
        int const nid = OBJ_obj2nid(obj);
        if (nid != NID_undef)
            type = OBJ_nid2sn(nid);
        if (type == nullptr) {
            int const n = OBJ_obj2txt(oid, sizeof oid, obj, 1);
            if (n <= 0 || static_cast<size_t>(n) >= sizeof oid) {
                ok = false;
                break;
            }
            type = oid;
        }
        unsigned char* utf8 = nullptr;
        int const valueLen = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(entry));
        OsslBytesPtr const value(utf8);
        // The subject is read as lines of "type=value": a value holding a line feed would add
        // lines of its own choosing (and so name another user's entry), a carriage return or
        // a tab would end up inside a name, a NUL would cut the value short. A subject with
        // any control character in any value is refused.
        unsigned char const* const control =
            valueLen < 0 ? nullptr
                         : std::find_if(value.get(), value.get() + valueLen,
                                        [](unsigned char c) { return c < 0x20 || c == 0x7F; });
        if (valueLen >= 0 && control != value.get() + valueLen) {
            std::string const text(reinterpret_cast<char const*>(value.get()),
                                   static_cast<size_t>(valueLen));
            Fault() = std::string("subject attribute ") + type + " holds " +
                      qor::DescribeNameFault(text, qor::NameFault::kControl,
                                             static_cast<size_t>(control - value.get()));
            ok = false;
            break;
        }
        Fault() = "the certificate's subject is longer than " + std::to_string(cap - 1) + " bytes";
        ok = valueLen >= 0 && (i == 0 || Append(out, cap, used, "\n", 1)) &&
             Append(out, cap, used, type, std::strlen(type)) && Append(out, cap, used, "=", 1) &&
             Append(out, cap, used, reinterpret_cast<char const*>(value.get()),
                    static_cast<size_t>(valueLen));
    }
    if (!ok)
        std::memset(&info, 0, sizeof info);
    else
        Fault().clear();
    return ok;
}
