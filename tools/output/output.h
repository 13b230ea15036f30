// Files read and written, and what a stored certificate or key is, for people.
#ifndef QORLDAP_TOOLS_OUTPUT_OUTPUT_H
#define QORLDAP_TOOLS_OUTPUT_OUTPUT_H

#include <cstddef>
#include <string>
#include <vector>

namespace qortool {

// --- files (files.cpp) ---

std::string ReadFile(std::string const& what, std::string const& path, size_t limit);
// ReadFile for a path that must name a regular file. Anything else is refused without being
// read or waited on: "PATH: not a regular file (a FIFO)", "PATH: symlink loop", "PATH:
// unreadable (Permission denied)".
std::string ReadRegularFile(std::string const& what, std::string const& path, size_t limit);
// Usage error when binary data would go to a terminal.
void RefuseBinaryOnTerminal(std::string const& what, std::string const& path, bool binary);
// Writes data to path ("-" or empty: standard output). binary data is refused on a terminal.
// privateFile leaves the file readable by its owner only.
void WriteOutput(std::string const& what, std::string const& data, std::string const& path,
                 bool binary, bool privateFile);

// --- descriptions (describe.cpp) ---

struct Field {
    std::string name;  // "subject", "notAfter", "sha256"
    std::string value;
};
// What der is, for people: for a certificate its subject, issuer, serial, validity, key and
// SHA-256 fingerprint; for a public key its type and size; for a private key whether and how
// it is encrypted.
std::vector<Field> Describe(std::string const& der);

// What the subtree reports need of a certificate, read without the fingerprint or the key's
// description. false when der is not one whole X.509 certificate (facts then untouched).
struct CertificateFacts {
    std::string subject;         // RFC 2253, as Describe gives it
    std::string serial;          // hex, as Describe gives it
    std::string notAfter;        // "2026-12-24T10:00:00Z"
    long long notAfterTime = 0;  // seconds since the epoch
};
bool ReadCertificateFacts(std::string const& der, CertificateFacts& facts);

}  // namespace qortool

#endif
