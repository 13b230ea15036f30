// The calling thread's last directory result, noted by the binding after every request.
#ifndef QORLDAP_BINDING_LASTRESULT_H
#define QORLDAP_BINDING_LASTRESULT_H

#include <atomic>
#include <string>

namespace qor {

struct LastResult {
    int code = 0;
    char const* operation = "";  // a string literal
    std::string matchedDn;
    std::string diagnostic;

    // The calling thread's record.
    static LastResult& OfThread();
    // Whether failed requests should have their matched DN and diagnostic text read.
    static std::atomic<bool>& KeepDiagnostics();
};

}  // namespace qor

#endif
