#include "zarnrtc.h"

#include "zarnrtcimpl.h"

namespace zarnrtc {

ZarnRtc* ZarnRtc::createZarnRtcEngine() {
    return new ZarnRtcImpl();
}

}  // namespace zarnrtc
