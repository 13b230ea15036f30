// Keys, certificates and bundles the openssl tool makes at test time (a CA, users with RSA, EC and
// SM2 keys, their bundles, one with legacy RC2), and bundles built here to probe the work bounds.
#include "platform/Crypto.h"

#include <gtest/gtest.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/TestFiles.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr char kPw[] = "p@ss word";
qortest::ScratchDir* g_dir = nullptr;

int Sh(std::string const& cmd) {
    int status = -1;
    qortest::Run("cd '" + g_dir->Path() + "' && (" + cmd + ") >/dev/null 2>&1", &status);
    return status;
}

Bytes Read(std::string const& name) {
    std::string const text = qortest::ReadFile(name[0] == '/' ? name : g_dir->File(name));
    return Bytes(text.begin(), text.end());
}

// OpenPfx must agree with the two calls in one: the same outcome and fault, the same bytes, and
// its outputs (holding something beforehand) replaced whole on success, untouched on a refusal.
void ExpectOneCallAgrees(Bytes const& pfx, char const* pw, bool legacy, bool ok, BundleFault fault,
                         Bytes const& cert, Bytes const& key) {
    Bytes oneCert{7};
    WipedBuffer oneKey(1);
    oneKey.Data()[0] = 7;
    bool const one = OpenPfx(pfx.data(), static_cast<int>(pfx.size()), pw, oneCert, oneKey, legacy);
    EXPECT_EQ(ok, one) << pfx.size();
    EXPECT_EQ(static_cast<int>(fault), static_cast<int>(LastBundleFault())) << pfx.size();
    Bytes const gotKey(oneKey.Data(), oneKey.Data() + oneKey.Size());
    EXPECT_EQ(one ? cert : Bytes{7}, oneCert);
    EXPECT_EQ(one ? key : Bytes{7}, gotKey);
}

// Opens a bundle as callers do: sizes, then buffers filled; refused with either one byte short.
bool Open(Bytes const& pfx, char const* pw, Bytes& cert, Bytes& key, bool legacy = true) {
    unsigned int certLen = 0, keyLen = 0;
    int const n = static_cast<int>(pfx.size());
    bool ok = GetKeyFromPfx(pfx.data(), n, pw, nullptr, certLen, nullptr, keyLen, legacy);
    BundleFault const fault = LastBundleFault();
    if (ok) {
        cert.assign(certLen, 0);
        key.assign(keyLen, 0);
        ok = GetKeyFromPfx(pfx.data(), n, pw, cert.data(), certLen, key.data(), keyLen, legacy) &&
             certLen == cert.size() && keyLen == key.size();
        for (unsigned int c = certLen - 1, k = keyLen, i = 0; i < 2; ++i, ++c, --k)
            EXPECT_FALSE(GetKeyFromPfx(pfx.data(), n, pw, cert.data(), c, key.data(), k, legacy));
    }
    ExpectOneCallAgrees(pfx, pw, legacy, ok, fault, cert, key);
    return ok;
}

// Protects a key as callers do: the size, then a buffer filled (refused when one byte short).
Bytes Protect(Bytes const& key) {
    unsigned int len = 0, keyLen = static_cast<unsigned int>(key.size());
    EXPECT_TRUE(Convert2Key(key.data(), keyLen, kPw, nullptr, len));
    Bytes out(len);
    EXPECT_TRUE(Convert2Key(key.data(), keyLen, kPw, out.data(), len));
    unsigned int shortLen = len - 1;
    EXPECT_FALSE(Convert2Key(key.data(), keyLen, kPw, out.data(), shortLen));
    out.resize(len);
    return out;
}

// DecryptKey on a copy: the key, or nothing when refused with the copy untouched.
Bytes Decrypt(Bytes data, char const* pw, unsigned int cut = 0) {
    Bytes const stored = data;
    unsigned int len = static_cast<unsigned>(data.size()) - cut;
    if (DecryptKey(data.data(), len, pw) == 0)
        return Bytes(data.begin(), data.begin() + len);
    return data == stored && !stored.empty() ? Bytes() : Bytes(1, 0);
}

// The EC user's bundle: certificate and key safes, each encrypted with iter iterations (0: none),
// copies of the first up to `safes` in all, a MAC of macIter.
Bytes Bundle(int safes, int iter, int macIter) {
    Bytes const certDer = Read("ec.der"), keyDer = Read("ec.p8");
    unsigned char const *c = certDer.data(), *k = keyDer.data();
    X509* x509 = d2i_X509(nullptr, &c, static_cast<long>(certDer.size()));
    EVP_PKEY* pkey = d2i_AutoPrivateKey(nullptr, &k, static_cast<long>(keyDer.size()));
    int const nid = iter > 0 ? NID_aes_256_cbc : -1;
    PKCS12* p12 = PKCS12_create(kPw, nullptr, pkey, x509, nullptr, nid, nid, iter, -1, 0);
    STACK_OF(PKCS7)* p7s = PKCS12_unpack_authsafes(p12);
    for (int i = 2; i < safes; ++i)  // copies cost nothing to make, all the more to open
        sk_PKCS7_push(p7s, PKCS7_dup(sk_PKCS7_value(p7s, 0)));
    unsigned char* out = nullptr;
    int const len = PKCS12_pack_authsafes(p12, p7s) == 1 &&
                            PKCS12_set_mac(p12, kPw, -1, nullptr, 0, macIter, EVP_sha256()) == 1
                        ? i2d_PKCS12(p12, &out)
                        : 0;
    Bytes der(out, out + std::max(len, 0));
    OPENSSL_free(out);
    PKCS12_free(p12);
    EVP_PKEY_free(pkey);
    X509_free(x509);
    sk_PKCS7_pop_free(p7s, PKCS7_free);
    return der;
}

class Crypto : public ::testing::Test {
  public:
    static void SetUpTestSuite() {
        g_dir = new qortest::ScratchDir;
        ASSERT_EQ(0, Sh(R"sh(set -e; pass='pass:p@ss word'; subj='/C=CN/O=Acme/OU=Sales/CN=Li Lei'
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -days 2 -subj /O=Acme/CN=CA
for kind in "rsa RSA rsa_keygen_bits:2048" "ec EC ec_paramgen_curve:P-256" "sm2 EC ec_paramgen_curve:SM2"
do  set -- $kind; k=$1; openssl genpkey -algorithm $2 -pkeyopt $3 -out $k.key
    openssl req -new -key $k.key -subj "$subj" -out $k.csr
    openssl x509 -req -in $k.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -out $k.crt
    openssl x509 -in $k.crt -outform DER -out $k.der
    openssl pkcs8 -topk8 -nocrypt -in $k.key -outform DER -out $k.p8
    openssl pkcs12 -export -in $k.crt -inkey $k.key -certfile ca.crt -passout "$pass" -out $k.p12
done
openssl pkcs12 -export -legacy -in rsa.crt -inkey rsa.key -passout "$pass" -out legacy.p12
openssl pkcs12 -info -noout -legacy -in legacy.p12 -passin "$pass" 2>&1 | grep -q RC2
openssl pkcs8 -topk8 -v2 aes-256-cbc -in ec.key -outform DER -out cli.der -passout pass:abc
openssl pkcs8 -topk8 -v2 aes-256-cbc -iter 2000001 -in ec.key -outform DER -out over.der -passout pass:abc
printf 'oid_section=o\n[o]\ntestAttr=1.2.3.4\n[req]\ndistinguished_name=d\n[d]\n' > oid.cnf
req="openssl req -config oid.cnf -x509 -key ec.key -days 2 -utf8 -outform DER"
$req -subj '/C=CN/O=Acme/CN=李雷/testAttr=x' -out utf.der
$req -subj "/C=CN/testAttr=$(printf '%6800s' | tr ' ' a)" -out long.der)sh"));
    }
    static void TearDownTestSuite() { delete g_dir; }
};

TEST_F(Crypto, OpensBundlesOfEveryKeyTypeOnlyWithTheirPasswordsAndDescribesSubjects) {
    Bytes cert, key;
    tagCERT info;
    for (std::string const name : {"rsa", "ec", "sm2", "legacy"}) {
        std::string const base = name == "legacy" ? "rsa" : name;
        ASSERT_TRUE(Open(Read(name + ".p12"), kPw, cert, key)) << name;
        EXPECT_TRUE(cert == Read(base + ".der") && key == Read(base + ".p8")) << name;
        ASSERT_TRUE(GetCertInfo(cert.data(), static_cast<int>(cert.size()), info));
        EXPECT_STREQ("C=CN\nO=Acme\nOU=Sales\nCN=Li Lei", info.subject);
    }
    // RC2 belongs to the legacy provider: only when asked for does the old bundle open. Wrong
    // passwords, cut or changed bundles, missing arguments are refused.
    Bytes const pfx = Read("rsa.p12");
    Bytes noise(pfx.rbegin(), pfx.rend());
    noise[0] = 0x30;  // a SEQUENCE, then garbage
    EXPECT_TRUE(Open(pfx, kPw, cert, key, false));
    for (auto const& [data, pw, legacy] : {std::tuple<Bytes, char const*, bool>{pfx, "wrong", true},
                                           {pfx, "", true},
                                           {Read("legacy.p12"), kPw, false},
                                           {Bytes(pfx.begin(), pfx.end() - 1), kPw, true},
                                           {noise, kPw, true},
                                           {pfx, nullptr, true},
                                           {Bytes(), kPw, true}})
        EXPECT_FALSE(Open(data, pw, cert, key, legacy)) << data.size();
    unsigned int c = 8, k = 8, n = static_cast<unsigned>(pfx.size());
    EXPECT_FALSE(GetKeyFromPfx(pfx.data(), n, kPw, noise.data(), c, nullptr, k, true));

    Bytes const utf = Read("utf.der"), longCert = Read("long.der");
    std::memset(&info, 0x5a, sizeof info);
    ASSERT_TRUE(GetCertInfo(utf.data(), static_cast<int>(utf.size()), info));
    EXPECT_STREQ("C=CN\nO=Acme\nCN=李雷\n1.2.3.4=x", info.subject);
    EXPECT_EQ(0, info.reserved[0]);
    // 6808 characters of subject do not fit in 6792: refused, the record zeroed.
    EXPECT_FALSE(GetCertInfo(longCert.data(), static_cast<int>(longCert.size()), info));
    EXPECT_EQ(0, info.subject[0]);
    EXPECT_FALSE(GetCertInfo(utf.data(), static_cast<int>(utf.size()) / 2, info));
}

// Stored keys: PBES2, PBKDF2-HMAC-SHA256 over 100000 iterations (hex 0186A0) and a fresh 16-byte
// salt, AES-256-CBC; the openssl tool opens them, and so do we, in place, with the password only.
TEST_F(Crypto, StoresKeysTheOpensslToolOpensAndOpensThemInPlace) {
    for (std::string const name : {"rsa", "ec", "sm2"}) {
        Bytes const key = Read(name + ".p8"), data = Protect(key);
        EXPECT_NE(data, Protect(key)) << name;
        g_dir->Write("stored.der", std::string(data.begin(), data.end()));
        EXPECT_EQ(0, Sh("openssl pkcs8 -inform DER -in stored.der -passin 'pass:" +
                        std::string(kPw) + "' | grep -q 'BEGIN PRIVATE KEY'"));
        EXPECT_EQ(0, Sh("openssl asn1parse -inform DER -in stored.der > a && grep -q PBES2 a && "
                        "grep -q hmacWithSHA256 a && grep -q aes-256-cbc a && "
                        "grep -A1 'l=  16 prim: OCTET STRING' a | grep -q 'INTEGER *:0186A0$'"));
        EXPECT_EQ(Bytes(), Decrypt(data, kPw, 1));
        EXPECT_EQ(Bytes(), Decrypt(data, "wrong"));
        EXPECT_EQ(key, Decrypt(data, kPw));
    }
    // Keys the openssl tool protected open too; what is not a key, or no password, is refused.
    Bytes key = Read("ec.p8");
    EXPECT_EQ(key, Decrypt(Read("cli.der"), "abc"));
    EXPECT_EQ(Bytes(), Decrypt(Read("cli.der"), nullptr));
    unsigned int len = 0;
    EXPECT_FALSE(Convert2Key(key.data(), static_cast<unsigned>(key.size()), "", nullptr, len));
    key.push_back(0);
    EXPECT_FALSE(Convert2Key(key.data(), static_cast<unsigned>(key.size()), kPw, nullptr, len));
    // With nothing usable in the caller's default OpenSSL context, ours still work.
    Bytes cert, pfx = Read("legacy.p12");
    EXPECT_EXIT(std::_Exit(!(OSSL_PROVIDER_load(nullptr, "null") && Open(pfx, kPw, cert, key) &&
                             Decrypt(Protect(key), kPw) == key)),
                ::testing::ExitedWithCode(0), "");
}

// Inputs name their own key-derivation work, spent before a password can be found wrong: counts
// beyond the bound on one piece or on a whole bundle, and bundles of too many safes, are refused.
TEST_F(Crypto, BoundsTheWorkAnInputAsksFor) {
    Bytes cert, key;
    EXPECT_EQ(Bytes(), Decrypt(Read("over.der"), "abc"));  // 2000001 iterations
    // A MAC of 2048 and `half` twice (certificates, key) spend the budget to the last iteration.
    int const half = static_cast<int>((kMaxPfxIterations - 2048) / 2);
    for (auto [safes, iter, macIter, opens] : {std::tuple<int, int, int, bool>{16, 0, 2048, true},
                                               {17, 0, 2048, false},
                                               {4, half, 2048, false},
                                               {2, half, 2048, true},
                                               {2, half, 2049, false}}) {
        cert.clear();
        EXPECT_EQ(opens, Open(Bundle(safes, iter, macIter), kPw, cert, key)) << safes << macIter;
        EXPECT_EQ(opens ? Read("ec.der") : Bytes(), cert);
    }
    // The bytes are bounded too, before any decoding: padded to the bound a bundle opens, one
    // byte more and it is refused as over the bound.
    Bytes padded = Read("ec.p12");
    padded.resize(kMaxPfxBytes, 0);
    EXPECT_TRUE(Open(padded, kPw, cert, key));
    padded.push_back(0);
    EXPECT_FALSE(Open(padded, kPw, cert, key));
    EXPECT_EQ(static_cast<int>(BundleFault::kOverBound), static_cast<int>(LastBundleFault()));
}

}  // namespace
