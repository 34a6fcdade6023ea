// What the host media engine tells the host SIP engine about a call: that its far
// end is gone, that a far end's description was unusable, and what to offer instead
// of plain RTP. The SDK joins the two engines and passes nothing of this between
// them, so the engines meet here, in one small library both link; a call is known to
// both by the ICE user fragments of its local description, or by its far end's text.
#ifndef ZARNRTC_ENGINE_LINK_H
#define ZARNRTC_ENGINE_LINK_H

#ifdef __cplusplus
extern "C" {
#endif

// Runs on a media engine thread with the link's lock held: it must only hand the
// news to its own thread, and must not call back into this API.
typedef void (*zarn_link_lost_fn)(void* context, const char* ice_ufrag, const char* why);

// A token above 0, or 0 when fn is null.
int zarn_link_subscribe(zarn_link_lost_fn fn, void* context);
// When it returns, fn is not running and never runs again for this token.
void zarn_link_unsubscribe(int token);
// Tells every subscriber; null or empty fragments are ignored.
void zarn_link_report_lost(const char* ice_ufrag, const char* why);

// A far end's description the media engine could not use, named by the key of its
// text (zarn_link_text_key: the SDK hands descriptions from one engine to the other
// unchanged). For an offer the SIP engine answers the INVITE with `status` (488 or
// 500) and a Warning header naming `why`; for an answer it ends the call with BYE.
// Same rules as zarn_link_lost_fn: runs with the link's lock held.
typedef void (*zarn_link_unusable_fn)(void* context, unsigned long long text_key, int status,
                                      const char* why);
// A token above 0 (unsubscribe with zarn_link_unsubscribe), or 0 when fn is null.
int zarn_link_subscribe_unusable(zarn_link_unusable_fn fn, void* context);
void zarn_link_report_unusable(const char* remote_sdp, int status, const char* why);
// FNV-1a (64 bit) of the text; 0 for null.
unsigned long long zarn_link_text_key(const char* text);

// Variants of a complete plain local offer, named by the offer's ICE user fragment,
// in the order the SIP engine sends them when a callee refuses what it was offered
// (488 or 606): the same offer in RTP/AVP (SIP phones without AVPF), then in
// DTLS-SRTP (browsers). Kept until forgotten or pushed out by newer ones (at most 64
// fragments); putting again replaces the list.
void zarn_link_put_alternatives(const char* ice_ufrag, const char* const* sdps, int count);
// One variant: zarn_link_put_alternatives with a list of one.
void zarn_link_put_alternative(const char* ice_ufrag, const char* sdp);
// A copy of variant `index` (from 0) to free() with free(), or null when there is
// none; the entry stays.
char* zarn_link_copy_alternative(const char* ice_ufrag, int index);
void zarn_link_forget_alternative(const char* ice_ufrag);

// An opt-in timeline of a call's set-up through both engines, for measurements:
// off unless ZARNRTC_TIMELINE is set ("1" or "stderr": print each mark to stderr as
// it happens; "keep": only keep them for zarn_timeline_drain). Marks carry the
// steady (monotonic) clock in microseconds and a source: the media session or SIP
// call that made them, so the marks of two calls in one process can be told apart.
int zarn_timeline_on(void);
void zarn_timeline_mark(unsigned long source, const char* event);
typedef void (*zarn_timeline_fn)(void* context, long long at_us, unsigned long source,
                                 const char* event);
// Hands every kept mark to fn, oldest first, and forgets them.
void zarn_timeline_drain(zarn_timeline_fn fn, void* context);

#ifdef __cplusplus
}
#endif

#endif
