#include "phone.h"

namespace siptest {

const char* const kOfferSdp =
    "v=0\r\no=- 4611731400430051336 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n"
    "a=group:BUNDLE 0 1\r\na=msid-semantic: WMS stream_id\r\n"
    "m=audio 9 UDP/TLS/RTP/SAVPF 111 0 8\r\nc=IN IP4 0.0.0.0\r\n"
    "a=candidate:1 1 udp 2122260223 127.0.0.1 50000 typ host generation 0\r\n"
    "a=ice-ufrag:abcd\r\na=ice-pwd:0123456789abcdefghijklmn\r\na=fingerprint:sha-256 AB:CD\r\n"
    "a=mid:0\r\na=sendrecv\r\n"
    "a=rtpmap:111 opus/48000/2\r\na=fmtp:111 minptime=10;useinbandfec=1\r\n"
    "m=video 9 UDP/TLS/RTP/SAVPF 96\r\nc=IN IP4 0.0.0.0\r\na=mid:1\r\na=sendrecv\r\n"
    "a=rtpmap:96 H264/90000\r\na=x-vendor-attr:keep me exactly   as is  \r\n";

const char* const kAnswerSdp =
    "v=0\r\no=- 99 2 IN IP4 127.0.0.1\r\ns=answer\r\nt=0 0\r\na=group:BUNDLE 0 1\r\n"
    "a=ice-ufrag:efgh\r\na=ice-pwd:abcdefghijklmnopqrstuvwx\r\na=fingerprint:sha-256 CD:EF\r\n"
    "m=audio 9 UDP/TLS/RTP/SAVPF 111\r\nc=IN IP4 0.0.0.0\r\na=mid:0\r\na=sendrecv\r\n"
    "a=rtpmap:111 opus/48000/2\r\n"
    "m=video 9 UDP/TLS/RTP/SAVPF 96\r\nc=IN IP4 0.0.0.0\r\na=mid:1\r\na=recvonly\r\n"
    "a=rtpmap:96 H264/90000\r\n";

const char* const kAudioOnlySdp =
    "v=0\r\no=- 7 3 IN IP4 127.0.0.1\r\ns=update\r\nt=0 0\r\n"
    "m=audio 9 UDP/TLS/RTP/SAVPF 111\r\nc=IN IP4 0.0.0.0\r\na=rtpmap:111 opus/48000/2\r\n"
    "m=video 0 UDP/TLS/RTP/SAVPF 96\r\n";

}  // namespace siptest
