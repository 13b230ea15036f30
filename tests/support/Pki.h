// Certificates and PKCS#12 bundles made at test time by the openssl command-line tool.
#ifndef QORLDAP_TESTS_PKI_H
#define QORLDAP_TESTS_PKI_H

#include <string>

#include "tests/support/TestFiles.h"

namespace qortest {

class Pki {
  public:
    Pki() {
        ok_ = Sh("openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -days 2"
                 " -subj '/C=CN/O=Acme/CN=Test CA'") == 0;
    }
    bool Ok() const { return ok_; }

    // Makes NAME.p12 (and NAME.der, the certificate as DER) for subject ("/C=CN/O=.../CN=...")
    // with a key of kind "rsa", "ec" or "sm2"; legacy uses the old RC2/3DES encryption.
    std::string Bundle(std::string const& name, std::string const& kind, std::string const& subject,
                       std::string const& password, bool legacy = false) {
        std::string alg = kind == "rsa"  ? "RSA -pkeyopt rsa_keygen_bits:2048"
                          : kind == "ec" ? "EC -pkeyopt ec_paramgen_curve:P-256"
                                         : "EC -pkeyopt ec_paramgen_curve:SM2";
        bool made =
            Sh("openssl genpkey -algorithm " + alg + " -out " + name + ".key") == 0 &&
            Sh("openssl req -new -key " + name + ".key -out " + name + ".csr -subj '" + subject +
               "'") == 0 &&
            Sh("openssl x509 -req -in " + name +
               ".csr -CA ca.crt -CAkey ca.key -CAcreateserial"
               " -days 2 -out " +
               name + ".crt") == 0 &&
            Sh("openssl x509 -outform DER -in " + name + ".crt -out " + name + ".der") == 0 &&
            Sh("openssl pkcs12 -export " + std::string(legacy ? "-legacy " : "") + "-in " + name +
               ".crt -inkey " + name + ".key -certfile ca.crt -out " + name +
               ".p12 -passout 'pass:" + password + "'") == 0;
        return made ? ReadFile(dir_.File(name + ".p12")) : std::string();
    }
    std::string Certificate(std::string const& name) { return ReadFile(dir_.File(name + ".der")); }

    // True when `openssl pkcs8` opens a stored (encrypted, DER) key with password.
    bool OpensWith(std::string const& storedKey, std::string const& password) {
        dir_.Write("stored.der", storedKey);
        int status = -1;
        std::string out =
            Run("cd '" + dir_.Path() +
                    "' && openssl pkcs8 -inform DER -in stored.der -passin 'pass:" + password +
                    "' 2>/dev/null",
                &status);
        return status == 0 && out.find("BEGIN PRIVATE KEY") != std::string::npos;
    }

  private:
    int Sh(std::string const& cmd) {
        int status = -1;
        Run("cd '" + dir_.Path() + "' && (" + cmd + ") >/dev/null 2>&1", &status);
        return status;
    }
    ScratchDir dir_;
    bool ok_ = false;
};

}  // namespace qortest

#endif
