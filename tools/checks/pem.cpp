// PEM blocks and base64, by OpenSSL.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <new>

#include "tools/checks/checks.h"
#include "tools/ossl.h"

namespace qortool {

namespace {

void FreeText(char* text) {
    OPENSSL_free(text);
}
using TextPtr = std::unique_ptr<char, Deleter<FreeText>>;

}  // namespace

std::string Base64Encode(std::string const& data) {
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                            reinterpret_cast<unsigned char const*>(data.data()),
                            static_cast<int>(data.size()));
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
}

bool Base64Decode(std::string const& text, std::string& data) {
    // EVP_DecodeBlock takes no blanks and pads its output to whole groups of three.
    if (text.size() % 4 != 0 || text.size() > 0x7fffffff)
        return false;
    data.assign(3 * (text.size() / 4), '\0');
    int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&data[0]),
                            reinterpret_cast<unsigned char const*>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0)
        return false;
    size_t padding = 0;
    for (size_t i = text.size(); i > 0 && padding < 2 && text[i - 1] == '='; --i)
        ++padding;
    data.resize(static_cast<size_t>(n) - padding);
    return true;
}

std::string Sha256Hex(std::string const& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
    static char const kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += kHex[digest[i] >> 4];
        out += kHex[digest[i] & 0xf];
    }
    return out;
}

std::string PemEncode(std::string const& label, std::string const& der) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr || PEM_write_bio(bio.get(), label.c_str(), "",
                                        reinterpret_cast<unsigned char const*>(der.data()),
                                        static_cast<long>(der.size())) <= 0) {
        throw std::bad_alloc();
    }
    char* text = nullptr;
    long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<size_t>(length));
}

Pem PemDecode(std::string const& text, std::string& label, std::string& der, std::string& error) {
    BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (bio == nullptr)
        throw std::bad_alloc();
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    ERR_clear_error();
    int ok = PEM_read_bio(bio.get(), &name, &header, &data, &length);
    TextPtr const owned[] = {TextPtr(name), TextPtr(header),
                             TextPtr(reinterpret_cast<char*>(data))};
    unsigned long const fault = ERR_peek_last_error();
    ERR_clear_error();
    if (ok != 1) {
        if (ERR_GET_LIB(fault) == ERR_LIB_PEM && ERR_GET_REASON(fault) == PEM_R_NO_START_LINE)
            return Pem::kNone;
        char const* reason = ERR_reason_error_string(fault);
        error =
            std::string("a broken PEM block (") + (reason != nullptr ? reason : "unreadable") + ")";
        return Pem::kBroken;
    }
    // One block only: a chain, or a certificate followed by its key, would otherwise lose all
    // but its first block without a word.
    char rest[4096];
    std::string after;
    for (int n; (n = BIO_read(bio.get(), rest, sizeof rest)) > 0;)
        after.append(rest, static_cast<size_t>(n));
    if (after.find("-----BEGIN") != std::string::npos) {
        error = "more than one PEM block (give one certificate, public key or key per file)";
        return Pem::kBroken;
    }
    label = name;
    der.assign(reinterpret_cast<char const*>(data), static_cast<size_t>(length));
    return Pem::kRead;
}

}  // namespace qortool
