// Atomic<T>: the lock-free word every reference count and flag of the library
// is built on.
//
// Five instantiations exist: int, bool, long long, unsigned long long and
// std::pair<int, int>. Every operation is sequentially consistent.
//   - Atomic<bool> lives in a 32-bit word (0 or 1) so that it can be
//     compare-exchanged as a word.
//   - Atomic<std::pair<int, int>> packs `first` into the upper and `second`
//     into the lower 32 bits of one 64-bit word, so the pair is read and
//     replaced as one unit.
//
// An Atomic with static storage duration may be built with
// RelyOnZeroInitialization: that constructor writes nothing, so the object is
// usable (as zero) before static constructors run, whatever their order.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace Tessera {

struct RelyOnZeroInitialization {};

namespace AtomicDetail {

// Maps a user-visible value type onto the word that holds it.
template <class T>
struct Word {
    using Type = T;
    static Type Pack(T v) { return v; }
    static T Unpack(Type w) { return w; }
};

template <>
struct Word<bool> {
    using Type = std::int32_t;
    static Type Pack(bool v) { return v ? 1 : 0; }
    static bool Unpack(Type w) { return w != 0; }
};

template <>
struct Word<std::pair<int, int>> {
    using Type = std::uint64_t;
    static Type Pack(const std::pair<int, int>& v) {
        return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(v.first)) << 32) |
               static_cast<std::uint32_t>(v.second);
    }
    static std::pair<int, int> Unpack(Type w) {
        return {static_cast<int>(static_cast<std::uint32_t>(w >> 32)),
                static_cast<int>(static_cast<std::uint32_t>(w))};
    }
};

template <class T>
struct IsCounter : std::integral_constant<bool, std::is_same<T, int>::value ||
                                                    std::is_same<T, long long>::value ||
                                                    std::is_same<T, unsigned long long>::value> {};

}  // namespace AtomicDetail

template <class T>
class Atomic {
    using W = AtomicDetail::Word<T>;
    using WordType = typename W::Type;
    static_assert(std::is_same<T, int>::value || std::is_same<T, bool>::value ||
                      std::is_same<T, long long>::value ||
                      std::is_same<T, unsigned long long>::value ||
                      std::is_same<T, std::pair<int, int>>::value,
                  "Atomic is provided for int, bool, long long, unsigned long long and "
                  "std::pair<int, int>");

public:
    Atomic() noexcept : _value(W::Pack(T())) {}
    Atomic(T v) noexcept : _value(W::Pack(v)) {}  // NOLINT: implicit by design
    // Leaves the word as it is: zero, for an object with static storage.
    explicit Atomic(RelyOnZeroInitialization) noexcept {}
    Atomic(const Atomic& other) noexcept : _value(other._value.load()) {}

    Atomic& operator=(const Atomic& other) noexcept {
        _value.store(other._value.load());
        return *this;
    }
    Atomic& operator=(T v) noexcept {
        Write(v);
        return *this;
    }

    T Read() const noexcept { return W::Unpack(_value.load()); }
    operator T() const noexcept { return Read(); }  // NOLINT: implicit by design
    void Write(T v) noexcept { _value.store(W::Pack(v)); }

    // Stores v and returns the previous value.
    T ReadWrite(T v) noexcept { return W::Unpack(_value.exchange(W::Pack(v))); }

    // Stores v if the value equals `expected`; true if it stored.
    bool IfEqualWrite(T expected, T v) noexcept {
        WordType e = W::Pack(expected);
        return _value.compare_exchange_strong(e, W::Pack(v));
    }

    // Stores v if the value equals `expected`; returns the value found, which
    // equals `expected` exactly when it stored.
    T ReadIfEqualWrite(T expected, T v) noexcept {
        WordType e = W::Pack(expected);
        _value.compare_exchange_strong(e, W::Pack(v));
        return W::Unpack(e);
    }

    // ---- counters: int, long long, unsigned long long ----
    template <class U = T, class = std::enable_if_t<AtomicDetail::IsCounter<U>::value>>
    void Inc() noexcept {
        _value.fetch_add(1);
    }
    template <class U = T, class = std::enable_if_t<AtomicDetail::IsCounter<U>::value>>
    void Dec() noexcept {
        _value.fetch_sub(1);
    }
    template <class U = T, class = std::enable_if_t<AtomicDetail::IsCounter<U>::value>>
    T ReadInc() noexcept {
        return _value.fetch_add(1);
    }
    template <class U = T, class = std::enable_if_t<AtomicDetail::IsCounter<U>::value>>
    T ReadDec() noexcept {
        return _value.fetch_sub(1);
    }
    template <class U = T, class = std::enable_if_t<AtomicDetail::IsCounter<U>::value>>
    T ReadAdd(T d) noexcept {
        return _value.fetch_add(d);
    }

    // ---- bool ----
    template <class U = T, class = std::enable_if_t<std::is_same<U, bool>::value>>
    bool operator!() const noexcept {
        return !Read();
    }

    // ---- pair: change one half, keep the other, as one 64-bit word ----
    template <class U = T, class = std::enable_if_t<std::is_same<U, std::pair<int, int>>::value>>
    void AddFirst(int d) noexcept {
        ReadAddFirst(d);
    }
    template <class U = T, class = std::enable_if_t<std::is_same<U, std::pair<int, int>>::value>>
    void AddSecond(int d) noexcept {
        ReadAddSecond(d);
    }
    template <class U = T, class = std::enable_if_t<std::is_same<U, std::pair<int, int>>::value>>
    T ReadAddFirst(int d) noexcept {
        return ReadAddHalves(d, 0);
    }
    template <class U = T, class = std::enable_if_t<std::is_same<U, std::pair<int, int>>::value>>
    T ReadAddSecond(int d) noexcept {
        return ReadAddHalves(0, d);
    }

private:
    T ReadAddHalves(int dFirst, int dSecond) noexcept {
        WordType old = _value.load();
        for (;;) {
            T v = W::Unpack(old);
            // Each half wraps on its own, as a 32-bit counter would.
            v.first =
                static_cast<int>(static_cast<unsigned>(v.first) + static_cast<unsigned>(dFirst));
            v.second =
                static_cast<int>(static_cast<unsigned>(v.second) + static_cast<unsigned>(dSecond));
            if (_value.compare_exchange_weak(old, W::Pack(v))) {
                return W::Unpack(old);
            }
        }
    }

    std::atomic<WordType> _value;
    static_assert(sizeof(std::atomic<WordType>) == sizeof(WordType), "Atomic must be one word");
};

}  // namespace Tessera
