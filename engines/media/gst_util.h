// Owning holders for GStreamer/GLib objects, so the rest of the engine has no
// manual releases.
#ifndef ZARNRTC_MEDIA_GST_UTIL_H
#define ZARNRTC_MEDIA_GST_UTIL_H

#include <gst/gst.h>
#include <memory>
#include <string>

namespace libwebrtc {
namespace media {

struct ObjectUnref {
    void operator()(gpointer p) const { gst_object_unref(p); }
};
struct GObjectUnref {
    void operator()(gpointer p) const { g_object_unref(p); }
};
struct CapsUnref {
    void operator()(GstCaps* c) const { gst_caps_unref(c); }
};
struct GFree {
    void operator()(gpointer p) const { g_free(p); }
};
struct ErrorFree {
    void operator()(GError* e) const { g_error_free(e); }
};

// Any GstObject (elements, pads, transceivers); the holder owns one reference.
template <typename T>
using GstRef = std::unique_ptr<T, ObjectUnref>;
using ElementRef = GstRef<GstElement>;
using PadRef = GstRef<GstPad>;
using GObjectRef = std::unique_ptr<GObject, GObjectUnref>;
using CapsRef = std::unique_ptr<GstCaps, CapsUnref>;
using GCharRef = std::unique_ptr<gchar, GFree>;
using ErrorRef = std::unique_ptr<GError, ErrorFree>;

// For C out-parameters: Out(holder) fills the holder at the end of the full
// expression, so test the holder in the next statement, not in the same one.
template <typename Holder>
class OutParam {
  public:
    explicit OutParam(Holder& h) : holder_(h) {}
    ~OutParam() { holder_.reset(raw_); }
    operator typename Holder::pointer *() { return &raw_; }

  private:
    Holder& holder_;
    typename Holder::pointer raw_ = nullptr;
};
template <typename Holder>
OutParam<Holder> Out(Holder& h) {
    return OutParam<Holder>(h);
}

// A new element of `factory` (owned, not floating) or null.
ElementRef MakeElement(const char* factory);
// A pipeline fragment as a bin with ghost pads; null (and logged) on error.
ElementRef ParseBin(const std::string& description, const char* what);
// A whole pipeline from a description; null (and logged) on error.
ElementRef ParseLaunch(const std::string& description, const char* what);
// Element `name` inside `bin` (new reference) or null.
ElementRef ByName(GstElement* bin, const char* name);

}  // namespace media
}  // namespace libwebrtc

#endif
