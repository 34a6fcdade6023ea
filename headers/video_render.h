#ifndef ZARNRTC_VIDEO_RENDER_H
#define ZARNRTC_VIDEO_RENDER_H

#include "rtc_video_frame.h"
#include "rtc_video_renderer.h"

namespace zarnrtc {

// The media engine's renderer type for decoded or captured frames.
using VideoRender = libwebrtc::RTCVideoRenderer<libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame>>;

}  // namespace zarnrtc

#endif
