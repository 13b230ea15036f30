// A subtree read page by page with the simple paged results control.
#include "engine/PagedSearch.h"

#include "engine/EntryRead.h"
#include "engine/SearchResult.h"
#include "qorldap/result_codes.h"

int PagedSearch::NextPage(char const* base, char const* filter, char** attributes, int pageSize,
                          std::string& cookie, std::vector<WholeEntry>& page) {
    page.clear();
    if (pageSize < 1) {
        return QORLDAP_E_FAILED;
    }
    return Request(base, filter, attributes, pageSize, cookie, &page);
}

int PagedSearch::Abandon(char const* base, char const* filter, char** attributes,
                         std::string const& cookie) {
    std::string ended = cookie;
    return Request(base, filter, attributes, 0, ended, nullptr);
}

int PagedSearch::Request(char const* base, char const* filter, char** attributes, int pageSize,
                         std::string& cookie, std::vector<WholeEntry>* page) {
    if (base == nullptr || filter == nullptr) {
        return QORLDAP_E_FAILED;
    }
    COpenLdapIF& binding = connection_.Binding();
    ldap* const ld = connection_.Handle();
    // The control is critical: a server that cannot page refuses (12) rather than send the
    // whole subtree in one result.
    berval sent{static_cast<ber_len_t>(cookie.size()), cookie.empty() ? nullptr : &cookie[0]};
    ldapcontrol* control = nullptr;
    int rc = binding.LdapCreatePageControl(ld, pageSize, &sent, 1, &control);
    if (rc != LDAP_SUCCESS) {
        return rc;
    }
    ldapcontrol* controls[2] = {control, nullptr};
    SearchResult result(binding, ld);
    rc = binding.LdapSearchExtS(ld, base, LDAP_SCOPE_SUBTREE, filter, attributes, 0, controls,
                                nullptr, nullptr, 0, result.Out());
    binding.LdapControlFree(control);
    if (rc != LDAP_SUCCESS) {
        result.Reset();
        return rc;
    }
    std::vector<WholeEntry> entries;
    if (page != nullptr) {
        for (ldapmsg* entry = binding.LdapFirstEnry(ld, result.Chain()); entry != nullptr;
             entry = binding.LdapNextEntry(ld, entry)) {
            entries.emplace_back();
            TakeWholeEntry(binding, result, entry, entries.back());
        }
    }
    // The cookie for the next page comes with the final result; none (or an empty one) ends
    // the search.
    int code = LDAP_SUCCESS;
    ldapcontrol** returned = nullptr;
    rc = binding.LdapParseResult(ld, result.Chain(), &code, &returned);
    if (rc != LDAP_SUCCESS) {
        binding.LdapControlsFree(returned);
        return rc;
    }
    std::string next;
    ldapcontrol* response = binding.LdapControlFind(LDAP_CONTROL_PAGEDRESULTS, returned);
    if (response != nullptr) {
        berval received{0, nullptr};
        int estimate = 0;
        rc = binding.LdapParsePageResponse(ld, response, &estimate, &received);
        if (received.bv_val != nullptr) {
            next.assign(received.bv_val, received.bv_len);
            binding.LdapMemFree(received.bv_val);
        }
    }
    binding.LdapControlsFree(returned);
    if (rc != LDAP_SUCCESS) {
        return rc;
    }
    cookie = next;
    if (page != nullptr) {
        page->swap(entries);
    }
    return QORLDAP_OK;
}
