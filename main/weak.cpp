// Weak links: the shared link object and the owner's side of it.

#include <tessera/weak.h>

#include "main/spinLock.h"

namespace Tessera {

// The link between an object and its weak holders. `_object` goes from set to
// null exactly once, under `_lock`, in the WeakDecRef of the last strong
// reference; Get reads it under the same lock.
class WeakLinkImpl final : public ObjectImpl, public WeakLink {
public:
    explicit WeakLinkImpl(ObjectImpl* object) noexcept : _object(object) {}

    bool Get(Ref<Object>& out) override;
    bool IsExpired() const override { return _object.load(std::memory_order_relaxed) == nullptr; }

    // Called by the last strong reference's release, before the object dies.
    void Cut() noexcept {
        SpinLockHolder hold(_lock);
        TESSERA_ASSERT(_object != 0);
        _object.store(nullptr, std::memory_order_relaxed);
    }

private:
    std::atomic<ObjectImpl*> _object; // not counted
    SpinLock _lock;
};

bool WeakLinkImpl::Get(Ref<Object>& out) {
    ObjectImpl* object;
    {
        SpinLockHolder hold(_lock);
        object = _object.load(std::memory_order_relaxed);
        // Pin the object. A count of 0 means its last release has begun and
        // is waiting for this lock to cut the link: it is gone already.
        // The pin goes straight to the count: IncRef would run the
        // first-reference hook on an object that is dying.
        if (object != nullptr && object->_refCount.ReadInc() == 0) {
            object->_refCount.Dec();
            object = nullptr;
        }
    }
    if (object == nullptr) {
        out.Reset();
        return false;
    }
    // The pin is a strong reference taken while one already existed, so no
    // first-reference hook is due: hand it over to `out` as it is.
    out = Ref<Object>::Adopt(object);
    return true;
}

// ---------------------------------------------------------------------------

WeakLinkableImplPrivate::WeakLinkableImplPrivate() noexcept : _link(nullptr) {}

WeakLinkableImplPrivate::~WeakLinkableImplPrivate() {
    TESSERA_ASSERT(0 != _link);
    _link->DecRef();
    _link = nullptr;
}

void WeakLinkableImplPrivate::Init(ObjectImpl* obj) {
    TESSERA_ASSERT(0 == _link);
    _link = new WeakLinkImpl(obj);
    _link->IncRef();
}

void WeakLinkableImplPrivate::GetLink(Ref<WeakLink>& out) const { out = _link; }

bool WeakLinkableImplPrivate::HasLink(const WeakLink* link) const noexcept {
    if (_link == nullptr) {
        return link == nullptr;
    }
    return link == static_cast<const WeakLink*>(_link);
}

bool WeakLinkableImplPrivate::WeakDecRef(Atomic<int>& refCount) const {
    if (refCount.ReadDec() != 1) {
        return false;
    }
    _link->Cut();
    return true;
}

} // namespace Tessera
