// The stamped test picture and the clicks (engines/media/stamp.h): drawn, read back,
// and carried through the codecs a call uses: H264 and VP8 at the engine's settings,
// A-law and µ-law. Also where kDamagedBelowDb comes from: clean decodes score above
// it, a decode built on a lost reference below (the figures are printed).
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "stamp.h"

namespace {

using namespace zarnrtc::stamp;

// An I420 picture with its own memory; strides may be wider than the picture.
struct Image {
    int width, height, stride_y, stride_c;
    std::vector<uint8_t> y, u, v;
    Image(int w, int h, int pad = 0)
        : width(w),
          height(h),
          stride_y(w + pad),
          stride_c((w + 1) / 2 + pad),
          y(size_t(stride_y) * h, 0x55),
          u(size_t(stride_c) * ((h + 1) / 2), 0x55),
          v(size_t(stride_c) * ((h + 1) / 2), 0x55) {}
    Picture pic() {
        Picture p;
        p.y = y.data(), p.u = u.data(), p.v = v.data();
        p.stride_y = stride_y, p.stride_u = p.stride_v = stride_c;
        p.width = width, p.height = height;
        return p;
    }
    ConstPicture cpic() const {
        ConstPicture p;
        p.y = y.data(), p.u = u.data(), p.v = v.data();
        p.stride_y = stride_y, p.stride_u = p.stride_v = stride_c;
        p.width = width, p.height = height;
        return p;
    }
    void fillLuma(int x0, int y0, int w, int h, uint8_t value) {
        for (int r = y0; r < y0 + h; ++r) std::memset(&y[size_t(r) * stride_y + x0], value, w);
    }
};

TEST(Stamp, ReadsBackWhatItDrew) {
    struct Case {
        int w, h, pad;
        Stamp s;
        Stamp expect;  // what comes back: 24 and 48 bits
    } cases[] = {
        {640, 480, 0, {0, 0}, {0, 0}},
        {640, 480, 32, {123456, 987654321012ull}, {123456, 987654321012ull}},
        {1280, 720, 0, {0xffffff, 0xffffffffffffull}, {0xffffff, 0xffffffffffffull}},
        {320, 120, 0, {7, 15}, {7, 15}},                    // the smallest stamped picture
        {333, 241, 5, {42, 1ull << 40}, {42, 1ull << 40}},  // odd sizes, block 8, 13 columns spare
        {640, 480, 0, {0x1234567, 0x1123456789abcull}, {0x234567, 0x123456789abcull}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
        Image img(c.w, c.h, c.pad);
        Draw(img.pic(), c.s);
        Stamp got;
        ASSERT_TRUE(Read(img.cpic(), &got));
        EXPECT_EQ(got.frame, c.expect.frame);
        EXPECT_EQ(got.capture_us, c.expect.capture_us);
        EXPECT_EQ(Psnr(img.cpic(), c.s.frame), 99);
        // The padding past each row is never written.
        if (c.pad) {
            EXPECT_EQ(img.y[size_t(c.w)], 0x55);
        }
    }
}

TEST(Stamp, RefusesWhatIsNotAStamp) {
    const Stamp s{4711, 123456789};
    auto drawn = [&](int w, int h) {
        Image img(w, h);
        Draw(img.pic(), s);
        return img;
    };
    // Too small or too flat to carry one: drawn without it, the scene still checks.
    for (auto wh : {std::make_pair(319, 240), std::make_pair(640, 119), std::make_pair(4000, 130),
                    std::make_pair(64, 48), std::make_pair(2, 2)}) {
        Image img = drawn(wh.first, wh.second);
        EXPECT_FALSE(Read(img.cpic(), nullptr)) << wh.first << "x" << wh.second;
        EXPECT_EQ(Psnr(img.cpic(), s.frame), 99) << wh.first << "x" << wh.second;
    }
    struct Damage {
        const char* what;
        void (*apply)(Image&);
    } damages[] = {
        {"black", [](Image& i) { i.fillLuma(0, 0, i.width, i.height, 16); }},
        {"white", [](Image& i) { i.fillLuma(0, 0, i.width, i.height, 235); }},
        {"one block flipped",
         [](Image& i) {
             uint8_t was = i.y[size_t(8) * i.stride_y + 16 * 17 + 8];
             i.fillLuma(16 * 17, 0, 16, 16, was > 128 ? 16 : 235);
         }},
        {"one block smeared grey", [](Image& i) { i.fillLuma(16 * 30, 16, 16, 16, 126); }},
        {"noise",
         [](Image& i) {
             std::mt19937 rng(7);
             for (auto& b : i.y) b = uint8_t(rng());
         }},
    };
    for (const Damage& d : damages) {
        Image img = drawn(640, 480);
        d.apply(img);
        EXPECT_FALSE(Read(img.cpic(), nullptr)) << d.what;
    }
    ConstPicture none;
    EXPECT_FALSE(Read(none, nullptr));
    EXPECT_EQ(Psnr(none, 0), 0);
    Draw(Picture(), s);  // nothing to draw into: no crash
}

TEST(Stamp, PictureMovesWithTheFrameNumber) {
    // Another frame's picture is not this one's: motion below the stamp, so a
    // decoder that shows a stale or mispredicted area is caught.
    Image a(640, 480), b(640, 480);
    Draw(a.pic(), {10, 0});
    Draw(b.pic(), {10 + 80, 0});  // the square has wrapped once: same place, ball elsewhere
    EXPECT_LT(Psnr(a.cpic(), 11), kDamagedBelowDb);
    EXPECT_LT(Psnr(b.cpic(), 10), kDamagedBelowDb);
}

// ------------------------------------------------------------- through codecs --

struct Frame {
    int index;  // from the buffer's time
    Image img;
};

class GstTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

// Runs raw buffers through a pipeline "appsrc name=src ... appsink name=out" and
// collects what comes out. Every packet of frame `drop` leaving the element named
// "pay" is lost.
struct Decoded {
    std::vector<Frame> out;
    std::vector<int> keyFrames;  // frames the encoder ("enc") made as key frames
    std::string error;
};

constexpr int kFps = 15;
constexpr int kW = 640, kH = 480;

GstClockTime FrameTime(int i) {
    return gst_util_uint64_scale_int(GST_SECOND, i, kFps);
}

// Encoders may shift every time by a constant (x264enc: 1000 hours); frame 0 is
// always there, so times count from the first one seen.
struct FrameClock {
    GstClockTime first = GST_CLOCK_TIME_NONE;
    int Index(GstClockTime pts) {
        if (first == GST_CLOCK_TIME_NONE) first = pts;
        return int(gst_util_uint64_scale_round(pts - first, kFps, GST_SECOND));
    }
};

struct Dropper {
    FrameClock clock;
    int drop = -1;
};

// Payloaders push a frame's packets one by one or as one list.
GstPadProbeReturn DropFrame(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto* d = static_cast<Dropper*>(data);
    GstBuffer* buf = nullptr;
    if (info->type & GST_PAD_PROBE_TYPE_BUFFER_LIST) {
        GstBufferList* list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
        if (list && gst_buffer_list_length(list) > 0) buf = gst_buffer_list_get(list, 0);
    } else {
        buf = GST_PAD_PROBE_INFO_BUFFER(info);
    }
    return buf && d->clock.Index(GST_BUFFER_PTS(buf)) == d->drop ? GST_PAD_PROBE_DROP
                                                                 : GST_PAD_PROBE_OK;
}

struct KeyFrames {
    FrameClock clock;
    std::vector<int>* frames;
};

GstPadProbeReturn NoteKeyFrame(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto* k = static_cast<KeyFrames*>(data);
    GstBuffer* buf = GST_PAD_PROBE_INFO_BUFFER(info);
    if (!buf) return GST_PAD_PROBE_OK;
    int index = k->clock.Index(GST_BUFFER_PTS(buf));
    if (!GST_BUFFER_FLAG_IS_SET(buf, GST_BUFFER_FLAG_DELTA_UNIT)) k->frames->push_back(index);
    return GST_PAD_PROBE_OK;
}

Decoded Encode(const std::string& description, int frames, int drop) {
    Decoded run;
    Dropper dropper;
    dropper.drop = drop;
    KeyFrames keys{FrameClock(), &run.keyFrames};
    FrameClock outClock;
    GError* err = nullptr;
    GstElement* pipe = gst_parse_launch(description.c_str(), &err);
    if (!pipe || err) {
        run.error = err ? err->message : "no pipeline";
        if (err) g_error_free(err);
        if (pipe) gst_object_unref(pipe);
        return run;
    }
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipe), "src");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipe), "out");
    GstElement* pay = gst_bin_get_by_name(GST_BIN(pipe), "pay");
    GstElement* enc = gst_bin_get_by_name(GST_BIN(pipe), "enc");
    GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width",
                                        G_TYPE_INT, kW, "height", G_TYPE_INT, kH, "framerate",
                                        GST_TYPE_FRACTION, kFps, 1, nullptr);
    g_object_set(src, "caps", caps, "format", GST_FORMAT_TIME, nullptr);
    gst_caps_unref(caps);
    if (pay) {
        GstPad* pad = gst_element_get_static_pad(pay, "src");
        gst_pad_add_probe(
            pad, GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
            DropFrame, &dropper, nullptr);
        gst_object_unref(pad);
    }
    if (enc) {
        GstPad* pad = gst_element_get_static_pad(enc, "src");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, NoteKeyFrame, &keys, nullptr);
        gst_object_unref(pad);
    }
    gst_element_set_state(pipe, GST_STATE_PLAYING);

    for (int i = 0; i < frames; ++i) {
        Image img(kW, kH);
        Draw(img.pic(), {uint32_t(i), 1000000ull * 3600 + uint64_t(i) * 66666});
        const size_t ysize = img.y.size(), csize = img.u.size();
        GstBuffer* buf = gst_buffer_new_allocate(nullptr, ysize + 2 * csize, nullptr);
        gst_buffer_fill(buf, 0, img.y.data(), ysize);
        gst_buffer_fill(buf, ysize, img.u.data(), csize);
        gst_buffer_fill(buf, ysize + csize, img.v.data(), csize);
        GST_BUFFER_PTS(buf) = FrameTime(i);
        GST_BUFFER_DURATION(buf) = FrameTime(1);
        gst_app_src_push_buffer(GST_APP_SRC(src), buf);
    }
    gst_app_src_end_of_stream(GST_APP_SRC(src));

    for (;;) {
        GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 20 * GST_SECOND);
        if (!sample) break;
        GstVideoInfo info;
        GstVideoFrame vf;
        if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) &&
            gst_video_frame_map(&vf, &info, gst_sample_get_buffer(sample), GST_MAP_READ)) {
            Frame f{outClock.Index(GST_BUFFER_PTS(gst_sample_get_buffer(sample))), Image(kW, kH)};
            for (int plane = 0; plane < 3; ++plane) {
                const int rows = plane ? kH / 2 : kH, cols = plane ? kW / 2 : kW;
                std::vector<uint8_t>& to = plane == 0 ? f.img.y : plane == 1 ? f.img.u : f.img.v;
                const int to_stride = plane ? f.img.stride_c : f.img.stride_y;
                const auto* from =
                    static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&vf, plane));
                const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&vf, plane);
                for (int r = 0; r < rows; ++r)
                    std::memcpy(&to[size_t(r) * to_stride], from + size_t(r) * stride, cols);
            }
            gst_video_frame_unmap(&vf);
            run.out.push_back(std::move(f));
        }
        gst_sample_unref(sample);
    }
    GstBus* bus = gst_element_get_bus(pipe);
    if (GstMessage* m = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
        GError* e = nullptr;
        gst_message_parse_error(m, &e, nullptr);
        run.error = e ? e->message : "error";
        if (e) g_error_free(e);
        gst_message_unref(m);
    }
    gst_object_unref(bus);
    gst_element_set_state(pipe, GST_STATE_NULL);
    for (GstElement* e : {src, sink, pay, enc})
        if (e) gst_object_unref(e);
    gst_object_unref(pipe);
    return run;
}

struct Codec {
    const char* name;
    const char* encode;  // the engine's encoder settings at 512 kbit/s (pipelines.cpp)
    const char* pay;
    const char* depay;   // no waiting for a key frame: a loss shows
    const char* decode;  // damaged output on
};

const Codec kCodecs[] = {
    {"H264",
     "x264enc name=enc tune=zerolatency speed-preset=ultrafast key-int-max=30 bitrate=512 "
     "! video/x-h264,profile=constrained-baseline",
     "rtph264pay name=pay config-interval=-1 aggregate-mode=zero-latency mtu=1200",
     "rtph264depay wait-for-keyframe=false request-keyframe=false ! h264parse",
     "avdec_h264 output-corrupt=true"},
    {"VP8",
     "vp8enc name=enc deadline=1 cpu-used=8 end-usage=cbr lag-in-frames=0 threads=1 "
     "error-resilient=default keyframe-max-dist=60 target-bitrate=512000",
     "rtpvp8pay name=pay picture-id-mode=15-bit mtu=1200",
     "rtpvp8depay wait-for-keyframe=false request-keyframe=false", "vp8dec"},
};

void PrintTo(const Codec& c, std::ostream* os) {
    *os << c.name;
}

std::string Describe(const Codec& c) {
    return std::string("appsrc name=src ! ") + c.encode + " ! " + c.pay + " ! " + c.depay + " ! " +
           c.decode +
           " ! videoconvert ! video/x-raw,format=I420 ! appsink name=out "
           "sync=false";
}

class Codecs : public GstTest, public ::testing::WithParamInterface<Codec> {
  protected:
    void SetUp() override {
        std::string missing;
        for (const char* e : {"x264enc", "avdec_h264", "vp8enc", "vp8dec", "rtph264depay"}) {
            GstElementFactory* f = gst_element_factory_find(e);
            if (!f) missing += std::string(" ") + e;
            if (f) gst_object_unref(f);
        }
        if (!missing.empty()) GTEST_SKIP() << "GStreamer elements missing:" << missing;
    }
};

TEST_P(Codecs, CleanDecodeReadsEveryStampAndScoresClean) {
    const Codec& c = GetParam();
    constexpr int kFrames = 75;  // 5 s: two H264 key frames, one of VP8
    Decoded run = Encode(Describe(c), kFrames, -1);
    ASSERT_EQ(run.error, "");
    ASSERT_EQ(int(run.out.size()), kFrames);
    double lo = 99;
    for (const Frame& f : run.out) {
        Stamp s;
        ASSERT_TRUE(Read(f.img.cpic(), &s)) << c.name << " frame " << f.index;
        EXPECT_EQ(int(s.frame), f.index);
        EXPECT_EQ(s.capture_us, 1000000ull * 3600 + uint64_t(f.index) * 66666);
        double db = Psnr(f.img.cpic(), s.frame);
        EXPECT_GT(db, kDamagedBelowDb) << c.name << " frame " << f.index;
        lo = std::min(lo, db);
    }
    std::printf("%s clean, 640x480@15 at 512 kbit/s: %d frames, lowest PSNR %.1f dB\n", c.name,
                kFrames, lo);
}

// Every frame from a lost one to the next key frame is built on a wrong picture.
TEST_P(Codecs, LostReferenceScoresDamagedUntilTheNextKeyFrame) {
    const Codec& c = GetParam();
    constexpr int kFrames = 45;
    double highest = 0;
    int readable = 0, damaged = 0;
    for (int lost : {4, 11, 20}) {
        SCOPED_TRACE(std::string(c.name) + ", frame " + std::to_string(lost) + " lost");
        Decoded run = Encode(Describe(c), kFrames, lost);
        ASSERT_EQ(run.error, "");
        ASSERT_FALSE(run.keyFrames.empty());
        int nextKey = kFrames;
        for (int k : run.keyFrames)
            if (k > lost) nextKey = std::min(nextKey, k);
        ASSERT_GT(nextKey, lost + 1);
        int seen = 0;
        for (const Frame& f : run.out) {
            ASSERT_NE(f.index, lost);
            if (f.index < lost) continue;
            double db = Psnr(f.img.cpic(), uint32_t(f.index));
            if (f.index < nextKey) {
                ++seen, ++damaged;
                EXPECT_LT(db, kDamagedBelowDb) << "frame " << f.index;
                highest = std::max(highest, db);
                readable += Read(f.img.cpic(), nullptr) ? 1 : 0;
            } else {
                EXPECT_GT(db, kDamagedBelowDb) << "frame " << f.index << " after the key frame";
            }
        }
        EXPECT_EQ(seen, nextKey - lost - 1);
    }
    std::printf(
        "%s, one P-frame lost: %d damaged frames, highest PSNR %.1f dB, %d of them with "
        "a readable stamp\n",
        c.name, damaged, highest, readable);
}

INSTANTIATE_TEST_SUITE_P(Stamp, Codecs, ::testing::ValuesIn(kCodecs),
                         [](const ::testing::TestParamInfo<Codec>& i) { return i.param.name; });

// ------------------------------------------------------------------- clicks --

constexpr uint64_t kSampleUs = 1000000 / kClickRate;
constexpr size_t kQuietSamples = 80;  // 10 ms

// Feeds `all` (starting at start_us) in buffers of `chunk` samples, each searched
// with the last 10 ms of the previous one in front, as a receiver would; every
// click found, as made_us and the time of its onset.
std::vector<std::pair<uint64_t, uint64_t>> FindAll(const std::vector<int16_t>& all,
                                                   uint64_t start_us, size_t chunk) {
    std::vector<std::pair<uint64_t, uint64_t>> found;
    for (size_t at = 0; at < all.size(); at += chunk) {
        const size_t from = at >= kQuietSamples ? at - kQuietSamples : 0;
        const size_t end = std::min(all.size(), at + chunk);
        size_t pos = from;
        uint64_t made;
        size_t offset;
        while (pos < end &&
               FindClick(&all[pos], end - pos, start_us + pos * kSampleUs, &made, &offset)) {
            found.push_back({made, start_us + (pos + offset) * kSampleUs});
            pos += offset + 1;
        }
    }
    return found;
}

// The clicks a stream of `n` samples from start_us must show: onset at the first
// sample at or after each multiple, with 10 ms of the stream before it.
std::vector<uint64_t> Expected(uint64_t start_us, size_t n) {
    std::vector<uint64_t> out;
    uint64_t m = (start_us + kClickPeriodUs - 1) / kClickPeriodUs * kClickPeriodUs;
    for (; m < start_us + n * kSampleUs; m += kClickPeriodUs) {
        size_t onset = size_t((m - start_us + kSampleUs - 1) / kSampleUs);
        if (onset >= kQuietSamples && onset < n) out.push_back(m);
    }
    return out;
}

TEST(Clicks, EachFoundOnceWhateverTheBuffers) {
    const uint64_t starts[] = {0, 123456789, 5 * kClickPeriodUs - 7 * kSampleUs,
                               7 * kClickPeriodUs + 1000 /* inside a click */, 1000003};
    const size_t chunks[] = {1, 79, 80, 160, 1000, 4000, 9000};
    for (uint64_t start : starts) {
        std::vector<int16_t> all(24000);  // 3 s
        // Written in uneven pieces: the clicks depend on the time alone.
        for (size_t at = 0, piece = 1; at < all.size(); at += piece, piece = piece * 3 % 997 + 1)
            Clicks(&all[at], std::min(piece, all.size() - at), start + at * kSampleUs);
        std::vector<int16_t> whole(all.size());
        Clicks(whole.data(), whole.size(), start);
        ASSERT_EQ(all, whole) << "start " << start;
        for (size_t chunk : chunks) {
            SCOPED_TRACE("start " + std::to_string(start) + ", buffers of " +
                         std::to_string(chunk));
            auto found = FindAll(all, start, chunk);
            auto expected = Expected(start, all.size());
            ASSERT_EQ(found.size(), expected.size());
            for (size_t i = 0; i < found.size(); ++i) {
                EXPECT_EQ(found[i].first, expected[i]);
                EXPECT_LT(found[i].second - expected[i], kSampleUs);  // the first sample after it
            }
        }
    }
    uint64_t made = 1;
    EXPECT_FALSE(FindClick(nullptr, 100, 0, &made, nullptr));
    std::vector<int16_t> silence(8000, 0);
    EXPECT_FALSE(FindClick(silence.data(), silence.size(), 0, &made, nullptr));
    EXPECT_EQ(made, 1u);
}

// Through a G.711 encoder and decoder, heard `latency_us` later: the multiple is
// still the one the click was made at.
TEST(Clicks, SurviveG711) {
    gst_init(nullptr, nullptr);
    const uint64_t start = 987654321;
    for (const char* codec : {"alawenc ! alawdec", "mulawenc ! mulawdec"}) {
        std::vector<int16_t> sent(16000);  // 2 s
        Clicks(sent.data(), sent.size(), start);
        std::string desc = std::string(
                               "appsrc name=src format=time caps=audio/x-raw,format=S16LE,"
                               "rate=8000,channels=1,layout=interleaved ! ") +
                           codec + " ! appsink name=out sync=false";
        GError* err = nullptr;
        GstElement* pipe = gst_parse_launch(desc.c_str(), &err);
        ASSERT_TRUE(pipe && !err) << codec;
        GstElement* src = gst_bin_get_by_name(GST_BIN(pipe), "src");
        GstElement* sink = gst_bin_get_by_name(GST_BIN(pipe), "out");
        gst_element_set_state(pipe, GST_STATE_PLAYING);
        for (size_t at = 0; at < sent.size(); at += 160) {  // 20 ms packets
            GstBuffer* b = gst_buffer_new_memdup(&sent[at], 160 * sizeof(int16_t));
            GST_BUFFER_PTS(b) = at * kSampleUs * GST_USECOND;
            gst_app_src_push_buffer(GST_APP_SRC(src), b);
        }
        gst_app_src_end_of_stream(GST_APP_SRC(src));
        std::vector<int16_t> heard;
        while (GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 10 * GST_SECOND)) {
            GstMapInfo map;
            GstBuffer* b = gst_sample_get_buffer(s);
            if (gst_buffer_map(b, &map, GST_MAP_READ)) {
                const auto* p = reinterpret_cast<const int16_t*>(map.data);
                heard.insert(heard.end(), p, p + map.size / 2);
                gst_buffer_unmap(b, &map);
            }
            gst_sample_unref(s);
        }
        gst_element_set_state(pipe, GST_STATE_NULL);
        gst_object_unref(src);
        gst_object_unref(sink);
        gst_object_unref(pipe);
        ASSERT_EQ(heard.size(), sent.size()) << codec;
        for (uint64_t latency : {uint64_t(0), uint64_t(80000), kClickPeriodUs - 3000}) {
            auto found = FindAll(heard, start + latency, 160);
            auto expected = Expected(start, heard.size());
            ASSERT_EQ(found.size(), expected.size()) << codec << ", latency " << latency;
            for (size_t i = 0; i < found.size(); ++i) {
                EXPECT_EQ(found[i].first, expected[i]) << codec << ", latency " << latency;
                EXPECT_LT(found[i].second - expected[i] - latency, kSampleUs);
            }
        }
    }
}

}  // namespace
