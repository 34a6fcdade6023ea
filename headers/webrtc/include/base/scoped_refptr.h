#ifndef LIBWEBRTC_BASE_SCOPED_REFPTR_H
#define LIBWEBRTC_BASE_SCOPED_REFPTR_H

#include <cstddef>
#include <utility>

namespace libwebrtc {

// Counted reference: a copy adds a reference, reset or destruction releases one.
template <class T>
class scoped_refptr {
  public:
    scoped_refptr() : ptr_(nullptr) {}
    scoped_refptr(std::nullptr_t) : ptr_(nullptr) {}
    scoped_refptr(T* p) : ptr_(p) {
        if (ptr_) ptr_->AddRef();
    }
    scoped_refptr(const scoped_refptr<T>& r) : ptr_(r.ptr_) {
        if (ptr_) ptr_->AddRef();
    }
    template <typename U>
    scoped_refptr(const scoped_refptr<U>& r) : ptr_(r.get()) {
        if (ptr_) ptr_->AddRef();
    }
    scoped_refptr(scoped_refptr<T>&& r) noexcept : ptr_(r.release()) {}
    template <typename U>
    scoped_refptr(scoped_refptr<U>&& r) noexcept : ptr_(r.release()) {}

    ~scoped_refptr() {
        if (ptr_) ptr_->Release();
    }

    T* get() const { return ptr_; }
    operator T*() const { return ptr_; }
    T* operator->() const { return ptr_; }
    T& operator*() const { return *ptr_; }

    // Gives up the reference without releasing it.
    T* release() {
        T* p = ptr_;
        ptr_ = nullptr;
        return p;
    }

    scoped_refptr<T>& operator=(T* p) {
        if (p) p->AddRef();
        T* old = ptr_;
        ptr_ = p;
        if (old) old->Release();
        return *this;
    }
    scoped_refptr<T>& operator=(const scoped_refptr<T>& r) { return *this = r.ptr_; }
    template <typename U>
    scoped_refptr<T>& operator=(const scoped_refptr<U>& r) {
        return *this = r.get();
    }
    scoped_refptr<T>& operator=(scoped_refptr<T>&& r) noexcept {
        scoped_refptr<T>(std::move(r)).swap(*this);
        return *this;
    }
    template <typename U>
    scoped_refptr<T>& operator=(scoped_refptr<U>&& r) noexcept {
        scoped_refptr<T>(std::move(r)).swap(*this);
        return *this;
    }
    scoped_refptr<T>& operator=(std::nullptr_t) {
        T* old = ptr_;
        ptr_ = nullptr;
        if (old) old->Release();
        return *this;
    }

    void swap(scoped_refptr<T>& r) noexcept { std::swap(ptr_, r.ptr_); }

  protected:
    T* ptr_;
};

}  // namespace libwebrtc

#endif
