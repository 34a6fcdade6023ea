#ifndef ZARNRTC_SIPMESSAGE_H
#define ZARNRTC_SIPMESSAGE_H

#include "zarnrtcsdkglobal.h"

namespace zarnrtc {

// Keeps status, direction and id only: body and content type are not stored.
class ZARNRTC_API SipMessage {
  public:
    SipMessage();
    ~SipMessage();

    int status() const;
    void setStatus(int status);
    int direction() const;
    void setDirection(int direction);
    int messageId() const;
    void setMessageId(int messageId);
    const char* messageBody() const;
    void setMessageBody(const char* body);
    const char* contentType() const;
    void setContentType(const char* contentType);

  private:
    int m_status;
    int m_direction;
    int m_messageId;
};

}  // namespace zarnrtc

#endif
