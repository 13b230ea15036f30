// HostProbe: whether a host answers LDAP, asked on a connection of its own that is closed at
// once: an anonymous base search of the root entry (the root DSE), which every server answers
// without a bind. Used for failback, to tell when the first provider is back.
// Owns: a binding of its own, so that the probe never touches an engine's connection.
// Promises: the calling thread's last result (qorldap/LastResult.h) is as it was before.
// Needs: the link options, for TLS over an LDAPS link.
#ifndef QORLDAP_ENGINE_HOSTPROBE_H
#define QORLDAP_ENGINE_HOSTPROBE_H

#include <string>

#include "binding/OpenLdapIF.h"
#include "engine/LinkOptions.h"

class HostProbe {
  public:
    // A probe waits at most this long to connect, and as long again for the answer.
    static constexpr int kSeconds = 1;

    HostProbe() = default;
    HostProbe(HostProbe const&) = delete;
    HostProbe& operator=(HostProbe const&) = delete;

    // host as written in "host" (name, name:port or URI); port added to a bare name.
    bool Answers(std::string const& host, int port, LinkOptions const& link);

  private:
    COpenLdapIF binding_;
};

#endif
