// PoolOptions: the keys of "soap.ini" section "ldap" that give the free functions a pool of
// connections, read hosts, failback and checks of idle connections. With none of them set the
// library sends exactly the requests it always sent: one engine shared by every thread.
#ifndef QORLDAP_ENGINE_POOLOPTIONS_H
#define QORLDAP_ENGINE_POOLOPTIONS_H

#include <string>

class IniFile;

struct PoolOptions {
    // "pool_size": up to this many engines (each with its own connection) serve the free
    // functions, made as concurrent calls need them; 0 (default) keeps the one shared engine.
    // With read hosts the reads have up to as many engines of their own.
    int poolSize = 0;
    // "read_host": blank-separated read-only hosts (replicas) that take the free functions'
    // reads when pool_size is set; writes stay on "host". Empty: every call goes to "host".
    std::string readHosts;
    // "read_after_write": seconds for which a thread's reads go to "host" after that thread
    // wrote, so that it reads what it wrote before the replicas have it. 0: never.
    int readAfterWrite = 0;
    // "failback": seconds the first host must have answered, after a failover to a later one,
    // before connections return to it. 0: a connection stays where it failed over to.
    int failback = 0;
    // "idle_check": seconds a connection may stay unused before it is checked (a base search
    // of the root entry) ahead of the call that uses it, and redialled when the check fails.
    // 0: never checked.
    int idleCheck = 0;
    // Empty when every key present reads; otherwise "key=value" of the first one that does not.
    // An engine whose pool keys do not read never connects, as with the link keys.
    std::string fault;

    // Reads the keys above from section; absent or empty keys keep their defaults. Whole numbers
    // only: pool_size 0 to 256, the seconds 0 to 86400.
    void Read(IniFile const& soap, std::string const& section);
    bool Valid() const { return fault.empty(); }
    // Whether any key asks for more than the one shared engine of today.
    bool Pooled() const { return poolSize > 0; }
};

#endif
