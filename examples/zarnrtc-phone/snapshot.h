// Still pictures of I420 frames, written as PNG.
#ifndef ZARNRTC_EXAMPLES_PHONE_SNAPSHOT_H
#define ZARNRTC_EXAMPLES_PHONE_SNAPSHOT_H

#include <cstdint>
#include <string>
#include <vector>

#include "rtc_video_frame.h"

// A copy of one I420 frame, for snapshots.
struct Picture {
    int width = 0, height = 0;
    std::vector<uint8_t> y, u, v;
};

Picture copyFrame(libwebrtc::RTCVideoFrame* f);
bool writePng(const std::string& path, const Picture& p);

#endif
