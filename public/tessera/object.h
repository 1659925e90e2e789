// Reference-counted objects and the owning reference Ref<T>.
//
// Every shared object of the library derives from ObjectImpl and is reached
// through an interface that derives virtually from Object, so that a class
// implementing several interfaces still has one count:
//
//     class Greeter : public virtual Tessera::Object {
//     public:
//         virtual std::string Greet() = 0;
//     };
//     class GreeterImpl : public Tessera::ObjectImpl, public Greeter {
//     public:
//         std::string Greet() override { return "hello"; }
//     };
//
//     Tessera::Ref<Greeter> g(new GreeterImpl);   // count 1
//     Tessera::Ref<Greeter> h = g;                // count 2
//
// An object is born with count 0; the first reference registers it in the
// per-type census (GetScores) and the last one deletes it. Objects must live on
// the heap, be created with new and be destroyed only through their count:
// destroying an object that is still referenced stops the process with the
// assertion "0 == _refCount".
//
// Counting is lock-free and safe from any thread; the object itself is not made
// thread-safe by being counted.
#pragma once

#include <tessera/api.h>
#include <tessera/atomic.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace Tessera {

class TESSERA_EXPORT Object {
public:
    virtual void IncRef() const = 0;
    virtual void DecRef() const = 0;
    // "[<dynamic type name>:<address>]" unless a class says more.
    virtual std::string ToString() = 0;
    // A plain read: a hint for diagnostics, stale as soon as it returns.
    virtual int GetRefCount() const = 0;

protected:
    virtual ~Object() = default;
};

class TESSERA_EXPORT ObjectImpl : public virtual Object {
public:
    // Final: Ref<T> takes references on classes derived from ObjectImpl
    // inline, through IncRefInline. Its hook is FirstIncRef.
    void IncRef() const final;
    void DecRef() const override;
    std::string ToString() override;
    int GetRefCount() const override;

    // Appends the census of live objects per type and, when a ref tracker
    // exists, the creation stacks of the tracked objects. Appends nothing when
    // no object was ever referenced and no tracker exists.
    static void GetScores(std::string& out);

    // What IncRef does, with the count raised inline and only the first
    // reference out of line.
    void IncRefInline() const {
        if (_refCount.ReadInc() == 0) {
            FirstReference();
        }
    }

protected:
    ObjectImpl() noexcept = default;
    // A copy is a new object: it starts uncounted.
    ObjectImpl(const ObjectImpl&) noexcept : Object() {}
    ObjectImpl& operator=(const ObjectImpl&) noexcept { return *this; }
    ~ObjectImpl() override;

    // Hooks of the first reference (count 0 to 1) and of the last release
    // (count 1 to 0). The defaults maintain the census and the ref tracker;
    // an override must call them.
    virtual void FirstIncRef(const std::type_info& type) const;
    virtual void FinalDecRef(const std::type_info& type) const;

    mutable Atomic<int> _refCount;

private:
    // FirstIncRef for the inline path, one frame deep as IncRef is.
    void FirstReference() const;

    friend class WeakLinkImpl; // pins the count while it hands out a reference
};

// Owning reference to a T derived from Object. Taking a pointer adds a
// reference; dropping or replacing it releases one. An empty Ref holds null.
template <class T>
class Ref {
public:
    Ref() noexcept : _ptr(nullptr) {}
    Ref(std::nullptr_t) noexcept : _ptr(nullptr) {} // NOLINT: implicit by design
    Ref(T* p) : _ptr(p) { // NOLINT: implicit by design
        if (_ptr) AddRef(_ptr);
    }
    // A copy never throws: the object already has a reference, so no hook of
    // a first reference runs. Callables that capture a Ref are therefore
    // nothrow-copyable, which lets a Functor keep them in place.
    Ref(const Ref& other) noexcept : Ref(other._ptr) {}
    Ref(Ref&& other) noexcept : _ptr(other._ptr) { other._ptr = nullptr; }
    template <class U>
    Ref(const Ref<U>& other) noexcept : Ref(other.Get()) {} // NOLINT
    template <class U>
    Ref(Ref<U>&& other) noexcept : _ptr(other.Detach()) {} // NOLINT

    ~Ref() {
        if (_ptr) _ptr->DecRef();
    }

    Ref& operator=(const Ref& other) {
        Ref(other).Swap(*this);
        return *this;
    }
    Ref& operator=(Ref&& other) noexcept {
        Ref(std::move(other)).Swap(*this);
        return *this;
    }
    Ref& operator=(T* p) {
        Ref(p).Swap(*this);
        return *this;
    }
    Ref& operator=(std::nullptr_t) noexcept {
        Reset();
        return *this;
    }

    // Takes over a reference the caller already holds on p, without adding one.
    static Ref Adopt(T* p) noexcept {
        Ref r;
        r._ptr = p;
        return r;
    }
    // Gives up the reference without releasing it: the caller now owns it.
    T* Detach() noexcept {
        T* p = _ptr;
        _ptr = nullptr;
        return p;
    }

    void Reset() noexcept {
        T* p = _ptr;
        _ptr = nullptr;
        if (p) p->DecRef();
    }
    void Swap(Ref& other) noexcept { std::swap(_ptr, other._ptr); }

    T* Get() const noexcept { return _ptr; }
    bool IsNull() const noexcept { return _ptr == nullptr; }
    explicit operator bool() const noexcept { return _ptr != nullptr; }
    T* operator->() const noexcept { return _ptr; }
    T& operator*() const noexcept { return *_ptr; }

private:
    // A class below ObjectImpl is counted inline: no call unless it is the
    // object's first reference. Releases stay virtual, since some classes
    // (weakly linkable ones) have their own.
    static void AddRef(T* p) {
        if constexpr (std::is_base_of<ObjectImpl, T>::value) {
            p->IncRefInline();
        } else {
            p->IncRef();
        }
    }

    T* _ptr;
};

template <class T, class U>
bool operator==(const Ref<T>& a, const Ref<U>& b) noexcept {
    return a.Get() == b.Get();
}
template <class T, class U>
bool operator!=(const Ref<T>& a, const Ref<U>& b) noexcept {
    return a.Get() != b.Get();
}
template <class T>
bool operator<(const Ref<T>& a, const Ref<T>& b) noexcept {
    return a.Get() < b.Get();
}

} // namespace Tessera
