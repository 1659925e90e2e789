// Functor: the library's callable for work items and completion callbacks.
//
// A Functor is a boost::function typed by its call signature, with a null
// state and value semantics:
//
//     Functor<void()> work(boost::bind(&Session::Flush, session));
//     GetThreadPool()->QueueWorkItem(work);
//
//     Functor<void(System::Stream*, Exception*)> done(
//         boost::bind(&Session::OnWritten, session, _1, _2));
//     stream->AsyncWrite(data, length, done);
//
// Copying is cheap whatever the callable: a callable that fits boost::function's
// small buffer (a function pointer, a bound member function with one pointer, a
// lambda capturing a pointer or two) is copied in place; a larger one (a bind
// holding a Ref and a string, say) is put on the heap once and shared by every
// copy, so a copy costs one atomic increment. Copies therefore share the state
// of a stateful callable; a callable called from several threads at once must
// be safe for that itself.
//
// Calling a null Functor throws boost::bad_function_call.
//
// Thread safety: distinct objects, safe; a shared object, safe to copy and call
// from several threads, not to assign while others read it.
#pragma once

#include <boost/function.hpp>

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

namespace Tessera {

template <class Signature>
class Functor;

template <class R, class... Args>
class Functor<R(Args...)> {
public:
    typedef boost::function<R(Args...)> Function;

    // A null functor.
    Functor() noexcept = default;
    Functor(std::nullptr_t) noexcept {} // NOLINT: implicit by design
    // Wraps a boost::function; an empty one makes a null functor.
    Functor(const Function& f) : _fn(Wrap(f, f.empty())) {} // NOLINT: implicit by design
    // Wraps any callable with a matching signature.
    template <class F,
              class = typename std::enable_if<
                  !std::is_same<typename std::decay<F>::type, Functor>::value &&
                  !std::is_same<typename std::decay<F>::type, Function>::value &&
                  !std::is_same<typename std::decay<F>::type, std::nullptr_t>::value>::type>
    Functor(F&& f) // NOLINT: implicit by design
        : _fn(Wrap(std::forward<F>(f), false)) {}

    Functor(const Functor&) = default;
    Functor(Functor&& other) noexcept : _fn(std::move(other._fn)) { other._fn.clear(); }
    Functor& operator=(const Functor&) = default;
    Functor& operator=(Functor&& other) noexcept {
        _fn.swap(other._fn);
        other._fn.clear();
        return *this;
    }

    bool IsNull() const noexcept { return _fn.empty(); }
    explicit operator bool() const noexcept { return !_fn.empty(); }
    // Makes this functor null, releasing the callable.
    void Clear() noexcept { _fn.clear(); }
    void Swap(Functor& other) noexcept { _fn.swap(other._fn); }

    R operator()(Args... args) const { return _fn(std::forward<Args>(args)...); }

    // The underlying function, for code that takes a boost::function.
    const Function& GetFunction() const noexcept { return _fn; }

private:
    // Held by a large callable's copies.
    template <class F>
    struct Shared {
        std::shared_ptr<F> f;
        R operator()(Args... args) const { return (*f)(std::forward<Args>(args)...); }
    };

    static constexpr std::size_t kSmallSize = 3 * sizeof(void*);

    template <class F>
    static Function Wrap(F&& f, bool empty) {
        typedef typename std::decay<F>::type Callable;
        if (empty) return Function();
        if constexpr (sizeof(Callable) <= kSmallSize &&
                      std::is_nothrow_copy_constructible<Callable>::value) {
            return Function(std::forward<F>(f));
        } else {
            return Function(Shared<Callable>{std::make_shared<Callable>(std::forward<F>(f))});
        }
    }

    Function _fn;
};

template <class Signature>
void swap(Functor<Signature>& a, Functor<Signature>& b) noexcept {
    a.Swap(b);
}

} // namespace Tessera
