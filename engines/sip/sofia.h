// The one place that includes sofia-sip: the magic types must be defined the same way
// in every translation unit before any sofia header is seen.
#ifndef ZARNRTC_ENGINES_SIP_SOFIA_H
#define ZARNRTC_ENGINES_SIP_SOFIA_H

namespace sipengine {
class UserAgent;
struct HandleContext;
}  // namespace sipengine

#define SU_ROOT_MAGIC_T void
#define SU_WAKEUP_ARG_T void
#define SU_TIMER_ARG_T void
#define NUA_MAGIC_T sipengine::UserAgent
#define NUA_HMAGIC_T sipengine::HandleContext

#include <sofia-sip/su.h>
#include <sofia-sip/su_wait.h>
#include <sofia-sip/su_log.h>
#include <sofia-sip/su_tag_io.h>
#include <sofia-sip/nua.h>
#include <sofia-sip/nua_tag.h>
#include <sofia-sip/sip_header.h>
#include <sofia-sip/sip_status.h>
#include <sofia-sip/msg_header.h>
#include <sofia-sip/url.h>
#include <sofia-sip/tport_tag.h>

#endif
