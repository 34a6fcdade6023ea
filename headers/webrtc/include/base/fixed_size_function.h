#ifndef LIBWEBRTC_BASE_FIXED_SIZE_FUNCTION_H
#define LIBWEBRTC_BASE_FIXED_SIZE_FUNCTION_H

#include <cstddef>
#include <functional>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace libwebrtc {

// A copyable callable with inline storage only: it never allocates, so it can
// cross the boundary between the SDK and a media engine built with another heap.
template <typename Signature, size_t MaxSize = 128>
class fixed_size_function;

template <typename R, typename... Args, size_t MaxSize>
class fixed_size_function<R(Args...), MaxSize> {
  public:
    fixed_size_function() noexcept {}
    fixed_size_function(std::nullptr_t) noexcept {}

    template <typename F, typename = typename std::enable_if<!std::is_same<
                              typename std::decay<F>::type, fixed_size_function>::value>::type>
    fixed_size_function(F&& f) {
        assign(std::forward<F>(f));
    }

    fixed_size_function(const fixed_size_function& other) { copy_from(other); }
    fixed_size_function(fixed_size_function&& other) { copy_from(other); }

    ~fixed_size_function() { reset(); }

    fixed_size_function& operator=(const fixed_size_function& other) {
        if (this != &other) {
            reset();
            copy_from(other);
        }
        return *this;
    }
    fixed_size_function& operator=(fixed_size_function&& other) { return *this = other; }
    fixed_size_function& operator=(std::nullptr_t) {
        reset();
        return *this;
    }
    template <typename F, typename = typename std::enable_if<!std::is_same<
                              typename std::decay<F>::type, fixed_size_function>::value>::type>
    fixed_size_function& operator=(F&& f) {
        reset();
        assign(std::forward<F>(f));
        return *this;
    }

    explicit operator bool() const noexcept { return ops_ != nullptr; }

    R operator()(Args... args) const {
        if (!ops_) throw std::bad_function_call();
        return ops_->call(const_cast<void*>(static_cast<const void*>(&storage_)),
                          std::forward<Args>(args)...);
    }

    void reset() {
        if (ops_) {
            ops_->destroy(&storage_);
            ops_ = nullptr;
        }
    }

  private:
    struct Ops {
        R (*call)(void*, Args&&...);
        void (*copy)(void* dst, const void* src);
        void (*destroy)(void*);
    };

    template <typename F>
    static const Ops* ops_for() {
        static const Ops ops = {
            [](void* p, Args&&... a) -> R {
                return (*static_cast<F*>(p))(std::forward<Args>(a)...);
            },
            [](void* dst, const void* src) { new (dst) F(*static_cast<const F*>(src)); },
            [](void* p) { static_cast<F*>(p)->~F(); }};
        return &ops;
    }

    template <typename F>
    void assign(F&& f) {
        using Fn = typename std::decay<F>::type;
        static_assert(sizeof(Fn) <= MaxSize, "callable too large for fixed_size_function");
        static_assert(alignof(Fn) <= alignof(std::max_align_t), "callable over-aligned");
        new (&storage_) Fn(std::forward<F>(f));
        ops_ = ops_for<Fn>();
    }

    void copy_from(const fixed_size_function& other) {
        if (other.ops_) {
            other.ops_->copy(&storage_, &other.storage_);
            ops_ = other.ops_;
        }
    }

    typename std::aligned_storage<MaxSize, alignof(std::max_align_t)>::type storage_;
    const Ops* ops_ = nullptr;
};

}  // namespace libwebrtc

#endif
