#include "gst_util.h"

#include <chrono>

#include "media_internal.h"

namespace libwebrtc {
namespace media {

ElementRef MakeElement(const char* factory) {
    GstElement* raw = gst_element_factory_make(factory, nullptr);
    return ElementRef(raw ? GST_ELEMENT(gst_object_ref_sink(raw)) : nullptr);
}

ElementRef ParseBin(const std::string& description, const char* what) {
    ErrorRef err;
    GstElement* raw = gst_parse_bin_from_description(description.c_str(), TRUE, Out(err));
    // Floating: sink it so the holder owns a plain reference either way.
    ElementRef bin(raw ? GST_ELEMENT(gst_object_ref_sink(raw)) : nullptr);
    if (!bin || err) {
        GST_ERROR("%s: %s", what, err ? err->message : "?");
        return nullptr;
    }
    return bin;
}

ElementRef ParseLaunch(const std::string& description, const char* what) {
    ErrorRef err;
    GstElement* raw = gst_parse_launch(description.c_str(), Out(err));
    ElementRef pipeline(raw ? GST_ELEMENT(gst_object_ref_sink(raw)) : nullptr);
    if (!pipeline || err) {
        GST_ERROR("%s: %s", what, err ? err->message : "?");
        return nullptr;
    }
    return pipeline;
}

ElementRef ByName(GstElement* bin, const char* name) {
    return ElementRef(gst_bin_get_by_name(GST_BIN(bin), name));
}

}  // namespace media
}  // namespace libwebrtc
