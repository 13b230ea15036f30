#include "engine/HostProbe.h"

#include "binding/LastResult.h"
#include "engine/Connection.h"
#include "engine/SearchResult.h"

bool HostProbe::Answers(std::string const& host, int port, LinkOptions const& link) {
    qor::LastResult const kept = qor::LastResult::OfThread();
    bool const ldaps =
        link.tls == LinkOptions::Tls::kLdaps || LinkOptions::HasLdapsUri(host.c_str());
    std::string const uri = LinkOptions::Uris(
        host.c_str(), port, link.tls == LinkOptions::Tls::kLdaps ? "ldaps" : "ldap");
    bool answered = false;
    ldap* ld = binding_.LdapInitialize(uri.c_str());
    if (ld != nullptr) {
        int version = LDAP_VERSION3;
        binding_.LdapSetOption(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        timeval limit = {kSeconds, 0};
        binding_.LdapSetOption(ld, LDAP_OPT_NETWORK_TIMEOUT, &limit);
        binding_.LdapSetOption(ld, LDAP_OPT_TIMEOUT, &limit);
        if (ldaps) {
            binding_.BoundSockets(ld, kSeconds);
            Connection::TlsOptions(binding_, ld, link);
        }
        NoAttributes none;
        SearchResult result(binding_, ld);
        COpenLdapIF::HandshakeWatch watch(binding_);
        answered =
            binding_.LdapSearchExtS(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", none.List(), 0,
                                    nullptr, nullptr, nullptr, 0, result.Out()) == LDAP_SUCCESS;
    }
    binding_.DropHandle();
    qor::LastResult::OfThread() = kept;
    return answered;
}
