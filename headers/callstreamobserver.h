#ifndef ZARNRTC_CALLSTREAMOBSERVER_H
#define ZARNRTC_CALLSTREAMOBSERVER_H

namespace zarnrtc {

class CallStreamObserver {
  public:
    virtual void onLocalVideoReady(int callId) = 0;
    virtual void onRemoteVideoReady(int callId) = 0;
    virtual void onUpdatedByLocal(int callId, bool video) = 0;
    virtual void onUpdatedByRemote(int callId, bool video) = 0;
    virtual ~CallStreamObserver() {}
};

}  // namespace zarnrtc

#endif
