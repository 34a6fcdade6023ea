#ifndef LIBWEBRTC_BASE_REFCOUNT_H
#define LIBWEBRTC_BASE_REFCOUNT_H

#include <atomic>

namespace libwebrtc {

// Every media object is reference counted; the last Release deletes it.
class RefCountInterface {
  public:
    virtual int AddRef() const = 0;
    virtual int Release() const = 0;

  protected:
    virtual ~RefCountInterface() {}
};

// Implements the count for a concrete object: new RefCountedObject<Impl>(...).
template <class T>
class RefCountedObject : public T {
  public:
    template <typename... Args>
    explicit RefCountedObject(Args&&... args) : T(static_cast<Args&&>(args)...) {}

    int AddRef() const override { return ++ref_count_; }

    int Release() const override {
        int count = --ref_count_;
        if (count == 0) delete this;
        return count;
    }

  protected:
    ~RefCountedObject() override {}

  private:
    mutable std::atomic<int> ref_count_{0};
};

}  // namespace libwebrtc

#endif
