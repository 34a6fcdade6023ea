// How the host media engine tells the host SIP engine that a call's far end is gone.
// The SDK joins the two engines and never passes ICE states between them, so the
// engines meet here, in one small library both link; a call is known to both by the
// ICE user fragments of its local description.
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
