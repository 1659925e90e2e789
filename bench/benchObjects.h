// The objects the benchmarks count, and their peers of the same size.
#pragma once

#include <tessera/object.h>

#include <boost/intrusive_ptr.hpp>

#include <atomic>

namespace TesseraBench {

// A counted object of the library: a virtual count and the census of first and
// last references.
class CountedObject : public Tessera::ObjectImpl {
public:
    int payload = 0;
};

// The usual intrusive count: inline, non-virtual add_ref and release on an
// atomic int inside the object.
struct IntrusiveObject {
    std::atomic<int> refs{0};
    char payload[sizeof(CountedObject) - sizeof(std::atomic<int>)] = {};
};

inline void intrusive_ptr_add_ref(IntrusiveObject* p) noexcept {
    p->refs.fetch_add(1, std::memory_order_relaxed);
}

inline void intrusive_ptr_release(IntrusiveObject* p) noexcept {
    if (p->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete p;
    }
}

// What a std::shared_ptr owns: as many bytes, its count lives in the control block.
struct PlainObject {
    char payload[sizeof(CountedObject)] = {};
};

static_assert(sizeof(IntrusiveObject) == sizeof(CountedObject), "peers must be the same size");
static_assert(sizeof(PlainObject) == sizeof(CountedObject), "peers must be the same size");

} // namespace TesseraBench
