// Optional keys of "soap.ini" section "ldap" that harden the directory link. With none of them
// set, a connection makes exactly the calls it always made: init, protocol version, bind.
#ifndef QORLDAP_ENGINE_LINKOPTIONS_H
#define QORLDAP_ENGINE_LINKOPTIONS_H

#include <string>

struct LinkOptions {
    enum class Tls { kNone, kStartTls, kLdaps };

    Tls tls = Tls::kNone;    // "tls": none (default), starttls, ldaps
    std::string caCert;      // "tls_cacert": CA certificate file (PEM) the server must chain to
    bool verify = true;      // "tls_verify": yes (default) demands a verified server certificate
    int timeout = 0;         // "timeout": seconds for connecting and for each request; 0 = none
    bool reconnect = false;  // "reconnect": yes drops a lost connection so the next call redials

    // Reads the keys above from section of "soap.ini"; absent keys keep their defaults.
    void Read(std::string const& section);
    // "ldaps://host:port" for each blank-separated host; a host written as a URI stays as it is.
    static std::string LdapsUris(char const* hosts, int port);
};

#endif
