// Weak references: observe a counted object without keeping it alive.
//
// An object that can be observed derives from WeakLinkableImpl<ObjectImpl>
// (or from the lockable bases' instantiations). It owns one small link object;
// an observer keeps a Ref<WeakLink> to that link and asks it for a strong
// reference when it needs the object:
//
//     class Session : public Tessera::WeakLinkableImpl<Tessera::ObjectImpl> { ... };
//
//     Tessera::Ref<Session> s(new Session);
//     Tessera::Ref<Tessera::WeakLink> link;
//     s->GetWeakLink(link);             // needs a strong reference to exist
//     ...
//     Tessera::Ref<Tessera::Object> strong;
//     if (link->Get(strong)) { ... }    // alive, and kept alive by `strong`
//
// The link is cut under its lock before the object is destroyed, so Get either
// yields a reference that keeps the object alive or reports that it is gone;
// it never yields an object that is being destroyed. The link outlives the
// object for as long as any observer holds it. Any number of threads may call
// Get at once. IsExpired is a lock-free hint: only Get's answer is usable.
#pragma once

#include <tessera/api.h>
#include <tessera/assert.h>
#include <tessera/object.h>

#include <type_traits>
#include <typeinfo>
#include <utility>

namespace Tessera {

class TESSERA_EXPORT WeakLink : public virtual Object {
public:
    // Fills `out` with a strong reference and returns true while the object
    // lives; afterwards empties `out` and returns false.
    virtual bool Get(Ref<Object>& out) = 0;
    virtual bool IsExpired() const = 0;
};

class TESSERA_EXPORT WeakLinkable : public virtual Object {
public:
    // The caller must hold a strong reference to this object.
    virtual void GetWeakLink(Ref<WeakLink>& out) = 0;
    virtual bool HasWeakLink(const WeakLink* link) const = 0;
};

class WeakLinkImpl;

// The part of a weakly referenceable object that owns its link.
class TESSERA_EXPORT WeakLinkableImplPrivate {
public:
    WeakLinkableImplPrivate() noexcept;
    ~WeakLinkableImplPrivate();
    WeakLinkableImplPrivate(const WeakLinkableImplPrivate&) = delete;
    WeakLinkableImplPrivate& operator=(const WeakLinkableImplPrivate&) = delete;

    void Init(ObjectImpl* obj);
    void GetLink(Ref<WeakLink>& out) const;
    bool HasLink(const WeakLink* link) const noexcept;
    // Drops one strong reference. True when it was the last: the link is cut
    // and the caller must destroy the object.
    bool WeakDecRef(Atomic<int>& refCount) const;

private:
    WeakLinkImpl* _link;  // holds one reference once Init ran
};

template <class T>
class WeakLinkableImpl : public T, public WeakLinkable {
public:
    WeakLinkableImpl() { _weakLink.Init(this); }
    // Forwards to T's constructors (never taken for a copy).
    template <
        class Arg, class... Args,
        class = std::enable_if_t<!std::is_base_of<WeakLinkableImpl, std::decay_t<Arg>>::value>>
    explicit WeakLinkableImpl(Arg&& arg, Args&&... args)
        : T(std::forward<Arg>(arg), std::forward<Args>(args)...) {
        _weakLink.Init(this);
    }
    // A copy is a new object with a link of its own.
    WeakLinkableImpl(const WeakLinkableImpl& other) : T(other) { _weakLink.Init(this); }
    WeakLinkableImpl& operator=(const WeakLinkableImpl& other) {
        T::operator=(other);
        return *this;
    }

    void GetWeakLink(Ref<WeakLink>& out) override {
        TESSERA_ASSERT(0 != this->_refCount);
        _weakLink.GetLink(out);
    }
    bool HasWeakLink(const WeakLink* link) const override { return _weakLink.HasLink(link); }

    void DecRef() const override {
        if (_weakLink.WeakDecRef(this->_refCount)) {
            this->FinalDecRef(typeid(*this));
            delete this;
        }
    }

private:
    WeakLinkableImplPrivate _weakLink;
};

}  // namespace Tessera
