// The description of a certificate the engine reads a user's place from: its subject as text.
//
// Contract: GetCertInfo either fills the subject whole, every value exactly as the certificate
// holds it, or refuses and leaves the record zeroed; a subject that could read as something
// else (a control character inside a value) is refused, never cut or cleaned.
#ifndef QORLDAP_PLATFORM_CERTINFO_H
#define QORLDAP_PLATFORM_CERTINFO_H

#include <cstddef>
#include <string>

// Certificate description. Only the subject text is filled and read; the record keeps the
// width and the subject's place of the record this layer stands in for.
struct tagCERT {
    unsigned char reserved[608];
    char subject[6792];  // "type=value" lines joined by '\n', most significant first
};
static_assert(sizeof(tagCERT) == 7400, "tagCERT is 7400 bytes");
static_assert(offsetof(tagCERT, subject) == 608, "subject starts 608 bytes in");

// Describes a DER certificate: info.subject receives the subject, one line per attribute
// value in encoding order, "type=value" with OpenSSL's short type names, values as UTF-8.
// info is zeroed first. false when the certificate does not parse or the subject does not fit.
bool GetCertInfo(unsigned char const* cert, int certLen, tagCERT& info);
// Why the calling thread's last GetCertInfo refused, for people ("subject attribute O holds a
// line feed (0x0A)"); empty after a success.
std::string LastCertInfoFault();

#endif
