// Optional keys of "soap.ini" section "ldap" that harden the directory link. With none of them
// set, a connection makes exactly the calls it always made: init, protocol version, bind.
#ifndef QORLDAP_ENGINE_LINKOPTIONS_H
#define QORLDAP_ENGINE_LINKOPTIONS_H

#include <string>

class IniFile;

struct LinkOptions {
    enum class Tls { kNone, kStartTls, kLdaps };

    Tls tls = Tls::kNone;    // "tls": none (default), starttls, ldaps
    std::string caCert;      // "tls_cacert": CA certificate file (PEM) the server must chain to
    bool verify = true;      // "tls_verify": yes (default) demands a verified server certificate
    bool verifySet = false;  // "tls_verify" was written (not left to the default)
    int timeout = 0;         // "timeout": seconds for connecting and for each request; 0 = none
    bool reconnect = false;  // "reconnect": yes drops a lost connection so the next call redials
    // "bind_dn", "bind_password": the identity the engine binds as, when it does not fit the
    // settings record (managerdn and psw hold 32 characters each; service DNs and generated
    // passwords are often longer). Each one, when present and not empty, takes the place of
    // its record field at every bind; the record itself, and what GetLdapAtt shows, stay as
    // they were.
    std::string bindDn;
    std::string bindPassword;
    // "fast_lookup": yes finds a user by name with one indexed search below the base DN
    // instead of walking the tree, and lists children by name only (engine/UserLookup.cpp).
    bool fastLookup = false;
    // "atomic_publish": yes makes a publication write the certificate and the protected private
    // key in one modify request, so that the directory applies both or neither: a crash, a
    // refused write or a concurrent publication never leaves a key next to a certificate it
    // does not belong to. Off, the two go in two requests, certificate first.
    bool atomicPublish = false;
    // "refuse_weak_keys": yes makes a publication refuse, before anything is written, a bundle
    // whose key gives less than 112-bit security or sits on an explicitly given curve.
    bool refuseWeakKeys = false;
    // "gb18030_dns": yes makes every DN a caller passes GB18030 text, converted to the UTF-8
    // the directory requires, and every DN handed back GB18030 (see interface/CallerDn.h).
    // Off, DNs pass unchanged both ways.
    bool gb18030Dns = false;
    // "user_certificate": yes makes a publication of an encryption pair also write the
    // certificate to userCertificate;binary where the entry's classes allow it, all in one
    // request, and the removal of the encryption key remove it (engine/UserCertificate.h).
    bool userCertificate = false;
    // Empty when every key present is written in one of its documented spellings; otherwise
    // "key=value" of the first one that is not. An engine whose link keys do not read never
    // connects: a misspelt "tls" or "tls_verify" must not quietly mean a clear or unverified
    // link.
    std::string fault;

    // Reads the keys above from section of soap.ini; absent keys keep their defaults.
    // Spellings, without regard to letter case (an empty value means the default):
    //   tls         none | no | off | starttls | start_tls | ldaps
    //   tls_verify  yes | true | on | 1 | demand  /  no | false | off | 0 | never
    //   reconnect   yes | true | on | 1  /  no | false | off | 0
    //   timeout     whole seconds, 0 to 86400 (0: none)
    //   fast_lookup, atomic_publish, refuse_weak_keys, gb18030_dns, user_certificate
    //               yes | true | on | 1  /  no | false | off | 0
    void Read(IniFile const& soap, std::string const& section);
    bool Valid() const { return fault.empty(); }
    // "scheme://host:port" for each blank-separated host; a host written as a URI stays as it
    // is. The port is added to hosts written without one, when it is above 0.
    static std::string Uris(char const* hosts, int port, char const* scheme);
    static std::string LdapsUris(char const* hosts, int port) { return Uris(hosts, port, "ldaps"); }
    // Whether any host of the list is written as a URI (ldap://, ldaps://, ldapi://), and
    // whether any as an ldaps:// URI (the scheme in any letter case).
    static bool HasUri(char const* hosts);
    static bool HasLdapsUri(char const* hosts);
    // The blank-separated host list turned by shift places: "a b c" by 1 is "b c a".
    static std::string RotateHosts(char const* hosts, unsigned shift);
    // What the settings make of the link, for people: "starttls, server certificate verified".
    std::string Describe() const;
};

#endif
