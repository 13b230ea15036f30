#include "binding/LastResult.h"

namespace qor {

LastResult& LastResult::OfThread() {
    thread_local LastResult last;
    return last;
}

std::atomic<bool>& LastResult::KeepDiagnostics() {
    static std::atomic<bool> keep{false};
    return keep;
}

}  // namespace qor
