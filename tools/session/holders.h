// Owners for what the library hands out: each releases it through the CLdap that made it.
#ifndef QORLDAP_TOOLS_SESSION_HOLDERS_H
#define QORLDAP_TOOLS_SESSION_HOLDERS_H

#include <cstring>
#include <string>

#include "qorldap/qorldap.h"

namespace qortool {

// A key read.
class KeyBuffer {
  public:
    explicit KeyBuffer(CLdap& ldap) : ldap_(ldap) {}
    ~KeyBuffer() { ldap_.FreeKey(data); }
    KeyBuffer(KeyBuffer const&) = delete;
    KeyBuffer& operator=(KeyBuffer const&) = delete;

    unsigned char* data = nullptr;
    unsigned int length = 0;

  private:
    CLdap& ldap_;
};

// An entry record.
class Entry {
  public:
    explicit Entry(CLdap& ldap) : ldap_(ldap) { std::memset(&att, 0, sizeof att); }
    ~Entry() { ldap_.FreeAtt(&att); }
    Entry(Entry const&) = delete;
    Entry& operator=(Entry const&) = delete;

    tagAtt att;

  private:
    CLdap& ldap_;
};

// A list of children.
class Children {
  public:
    explicit Children(CLdap& ldap) : ldap_(ldap) {}
    ~Children() {
        if (list != nullptr)
            ldap_.FreeDN(list, count);
    }
    Children(Children const&) = delete;
    Children& operator=(Children const&) = delete;

    tagDN* list = nullptr;
    int count = 0;

  private:
    CLdap& ldap_;
};

}  // namespace qortool

#endif
