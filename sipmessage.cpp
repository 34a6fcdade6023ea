#include "sipmessage.h"

namespace zarnrtc {

SipMessage::SipMessage() : m_status(1), m_direction(1), m_messageId(-1) {}

SipMessage::~SipMessage() {}

int SipMessage::status() const {
    return m_status;
}

void SipMessage::setStatus(int status) {
    if (m_status != status) m_status = status;
}

int SipMessage::direction() const {
    return m_direction;
}

void SipMessage::setDirection(int direction) {
    if (m_direction != direction) m_direction = direction;
}

int SipMessage::messageId() const {
    return m_messageId;
}

void SipMessage::setMessageId(int messageId) {
    if (m_messageId != messageId) m_messageId = messageId;
}

// The record keeps no body and no content type.
const char* SipMessage::messageBody() const {
    return nullptr;
}
void SipMessage::setMessageBody(const char*) {}
const char* SipMessage::contentType() const {
    return nullptr;
}
void SipMessage::setContentType(const char*) {}

}  // namespace zarnrtc
