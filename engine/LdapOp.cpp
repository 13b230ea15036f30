// The engine façade: each member hands its call to the part that owns the operation (the map
// is at the top of engine/LdapOp.h).
#include "engine/LdapOp.h"

#include "engine/Records.h"

CLdapOp::CLdapOp() {
    // An engine whose schema file does not load is built all the same, with no templates;
    // the operations that need templates then refuse.
    templates_.Load();
}

// The connection is neither unbound nor closed: a connection lives as long as the process.
CLdapOp::~CLdapOp() = default;

void CLdapOp::GetConfig(std::string const& section) {
    settings_.Read(section);
}

int CLdapOp::ConnectLdap() {
    return connection_.Connect(root_);
}

void CLdapOp::GetLdapAtt(LdapInfo& info) {
    info = settings_.Get();
}

void CLdapOp::SetLdapAtt(LdapInfo info) {
    settings_.Set(info);
}

bool CLdapOp::ValidateRootAtt() {
    return root_.ValidateRootAtt();
}

bool CLdapOp::GetRootAtt(char const* dn, char const* filter, DepartementAtt& att) {
    return root_.GetRootAtt(dn, filter, att);
}

bool CLdapOp::InsertRootAtt(char const* dn, char const* name) {
    return root_.InsertRootAtt(dn, name);
}

void CLdapOp::FreeKey(unsigned char*& key) {
    qor::FreeKey(key);
}

void CLdapOp::FreeAtt(tagAtt* att) {
    qor::FreeAtt(att);
}

void CLdapOp::FreeDN(tagDN* list, int /*count*/) {
    qor::FreeDN(list);
}

bool CLdapOp::ReadConfig() {
    return templates_.Load();
}

bool CLdapOp::ReadEachConfig(std::string const& section, std::string const& file, tagAtt& tmpl) {
    return TemplateTable::ReadEachConfig(section, file, tmpl);
}

bool CLdapOp::SeparateData(std::string const& text, std::string& name, std::string& code,
                           int& role) {
    return TemplateTable::SeparateData(text, name, code, role);
}

int CLdapOp::GetLdapOpAtt(char const* name, tagAtt& out) {
    templates_.Find(name, out);
    return 1;
}

void CLdapOp::MakeLower(std::string& text) {
    Naming::MakeLower(text);
}

bool CLdapOp::CompareNameSame(char const* a, char const* b) {
    return Naming::CompareNameSame(a, b);
}

bool CLdapOp::GetFilter(char const* dn, int index, std::string& value, std::string& type) {
    return Naming::GetFilter(dn, index, value, type);
}

bool CLdapOp::GetParentDN(char const* dn, std::string& parent) {
    return Naming::GetParentDN(dn, parent);
}

bool CLdapOp::ParseSubject(char const* subject, char const* key, std::string& value) {
    return Naming::ParseSubject(subject, key, value);
}

bool CLdapOp::CheckSubject(char const* subject, std::string* fault) const {
    return naming_.CheckSubject(subject, fault);
}

bool CLdapOp::GetCondition(char const* name, std::string& condition, int& kind) {
    return naming_.GetCondition(name, condition, kind);
}

bool CLdapOp::FromCNToName(char const* component, char const* type, char const* namingAtt,
                           std::string& value) {
    return Naming::FromCNToName(component, type, namingAtt, value);
}

bool CLdapOp::GetParaAtt(char const* value, unsigned int op, char const* type, AttFrame& frame) {
    return PrepareTextValue(value, op, type, frame);
}

int CLdapOp::InsertLdap(char const* dn, tagAtt const& att, bool crypt, unsigned char* password,
                        unsigned int passwordLength, unsigned char* publicKey,
                        unsigned int publicKeyLength, unsigned char* privateKey,
                        unsigned int privateKeyLength) {
    return writer_.InsertLdap(dn, att, crypt, password, passwordLength, publicKey, publicKeyLength,
                              privateKey, privateKeyLength);
}

int CLdapOp::ModifyLdap(char const* dn, tagAtt const& att) {
    return writer_.ModifyLdap(dn, att);
}

int CLdapOp::DeleteLdap(char const* dn) {
    return writer_.DeleteLdap(dn);
}

int CLdapOp::WriteWhole(char const* dn, bool add, WholeEntry const& entry) {
    return writer_.WriteWhole(dn, add, entry);
}

int CLdapOp::SelectLdapAtt(char const* dn, tagAtt& att) {
    return lookup_.SelectLdapAtt(dn, att);
}

int CLdapOp::GetAtt(char const* dn, char const* filter, tagAtt& att) {
    return lookup_.GetAtt(dn, filter, att);
}

int CLdapOp::SelectLdap(char const* dn, char const* condition, tagDN*& list, int& count) {
    return lookup_.SelectLdap(dn, condition, list, count);
}

bool CLdapOp::GetChild(char const* base, char const* filter, tagDN*& list, int& count) {
    return lookup_.GetChild(base, filter, list, count);
}

int CLdapOp::ReadEntry(char const* dn, WholeEntry& entry) {
    return lookup_.ReadEntry(dn, entry);
}

int CLdapOp::ReadPage(char const* base, char const* filter, char** attributes, int pageSize,
                      std::string& cookie, std::vector<WholeEntry>& page) {
    return pages_.NextPage(base, filter, attributes, pageSize, cookie, page);
}

int CLdapOp::EndPages(char const* base, char const* filter, char** attributes,
                      std::string const& cookie) {
    return pages_.Abandon(base, filter, attributes, cookie);
}

int CLdapOp::InsertOrganization(char const* subject, std::string& dn) {
    return paths_.InsertOrganization(subject, dn);
}

int CLdapOp::ModifyKey(char const* dn, char const* attribute, unsigned char const* value,
                       unsigned int length) {
    return keys_.ModifyKey(dn, attribute, value, length);
}

int CLdapOp::ModifySignPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    return keys_.ModifySignPrivateKey(dn, key, length);
}

int CLdapOp::ModifySignPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return keys_.ModifySignPublicKey(dn, key, length);
}

int CLdapOp::ModifyCryptPrivateKey(char const* dn, unsigned char const* key, unsigned int length) {
    return keys_.ModifyCryptPrivateKey(dn, key, length);
}

int CLdapOp::ModifyCryptPublicKey(char const* dn, unsigned char const* key, unsigned int length) {
    return keys_.ModifyCryptPublicKey(dn, key, length);
}

int CLdapOp::DeleteSignPrivateKey(char const* dn) {
    return keys_.DeleteSignPrivateKey(dn);
}

int CLdapOp::DeleteCryptPrivateKey(char const* dn) {
    if (settings_.Link().userCertificate) {
        return copies_.RemoveKey(dn);
    }
    return keys_.DeleteCryptPrivateKey(dn);
}

int CLdapOp::GetSignPrivateKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return keys_.GetSignPrivateKey(dn, key, length);
}

int CLdapOp::GetSignPublicKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return keys_.GetSignPublicKey(dn, key, length);
}

int CLdapOp::GetCryptPrivateKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return keys_.GetCryptPrivateKey(dn, key, length);
}

int CLdapOp::GetCryptPublicKey(char const* dn, unsigned char*& key, unsigned int& length) {
    return keys_.GetCryptPublicKey(dn, key, length);
}

int CLdapOp::GetKeyOP(char const* name, char const* attribute, unsigned char*& value,
                      unsigned int& length) {
    return keys_.GetKeyOP(name, attribute, value, length);
}

int CLdapOp::GetEachKey(char const* dn, char const* attribute, unsigned char*& value,
                        unsigned int& length) {
    return keys_.GetEachKey(dn, attribute, value, length);
}

bool CLdapOp::GetChildKey(char const* base, int depth, char const* value, char const* attribute,
                          unsigned char*& key, unsigned int& length, std::string& foundDn) {
    return users_.GetChildKey(base, depth, value, attribute, key, length, foundDn);
}

int CLdapOp::GetFullDN(char const* name, std::string& dn) {
    return users_.GetFullDN(name, dn);
}

int CLdapOp::FindUser(char const* value, std::string& dn) {
    return users_.FindUser(value, dn);
}

int CLdapOp::ModifyPriKeyPsw(char const* name, char const* oldPsw, char const* newPsw) {
    return password_.ModifyPriKeyPsw(name, oldPsw, newPsw);
}

int CLdapOp::PublishP12(char const* pfx, unsigned long pfxLength, char const* pfxPsw,
                        char const* keyPsw, bool sign, bool publicOnly) {
    return publisher_.PublishP12(pfx, pfxLength, pfxPsw, keyPsw, sign, publicOnly);
}
