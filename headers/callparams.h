#ifndef ZARNRTC_CALLPARAMS_H
#define ZARNRTC_CALLPARAMS_H

#include <string>

#include "zarnrtcsdkglobal.h"

namespace zarnrtc {

// Media settings of one call; a plain value, copied at every layer.
class ZARNRTC_API CallParams {
  public:
    CallParams();

    bool getAudioEnabled();
    void setEnableAudio(bool enable);
    bool getAudioProcessing();
    void setEnableaudioProcessing(bool enable);
    void setAgcControlLevel(int level);
    int getAgcControlLevel();
    void setAgcControlGain(int gain);
    int getAgcControlGain();
    void setAudioCodec(std::string codec);
    std::string getAudioCodec();
    void setAudioStartBitrate(int bitrate);
    int getAudioStartBitrate();
    bool getVideoEnabled();
    void setEnableVideo(bool enable);
    void setVideoWidth(int width);
    int getVideoWidth();
    void setVideoHeight(int height);
    int getVideoHeight();
    void setVideoFps(int fps);
    int getVideoFps();
    void setVideoCodec(std::string codec);
    std::string getVideoCodec();
    void setVideoMaxBitrate(int bitrate);
    int getVideoMaxBitrate();
    void setScreenShare(bool enable);
    bool getScreenShare();
    void setDisplayName(std::string name);
    std::string getDisplayName();

  private:
    bool enableAudio;
    bool enableVideo;
    bool enableScreenShare;
    int videoWidth;
    int videoHeight;
    int videoFps;
    std::string videoCodec;
    int videoMaxBitrate;
    std::string audioCodec;
    int audioStartBitrate;
    bool audioProcessing;
    int agcControlLevel;
    int agcControlGain;
    std::string displayName;
};

}  // namespace zarnrtc

#endif
