// Counts what operator new hands out while counting is on: the library's own allocations
// (libldap's, made with malloc, show in VmRSS only). Replaces the global operator new and
// delete, so it is included by exactly one source file of a program.
#ifndef QORLDAP_BENCH_COUNTINGNEW_H
#define QORLDAP_BENCH_COUNTINGNEW_H

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace qorbench {

std::atomic<bool> countingNew{false};
std::atomic<std::size_t> newBytes{0};
std::atomic<std::size_t> newCalls{0};

}  // namespace qorbench

void* operator new(std::size_t n) {
    if (qorbench::countingNew.load(std::memory_order_relaxed)) {
        qorbench::newBytes.fetch_add(n, std::memory_order_relaxed);
        qorbench::newCalls.fetch_add(1, std::memory_order_relaxed);
    }
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) {
    return operator new(n);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

#endif
