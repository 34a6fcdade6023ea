// The engine link as both engines use it: news of unusable descriptions reaches the
// subscribers that asked for it and nobody after they left, texts are named by their
// FNV-1a key, and the DTLS-SRTP alternatives are kept, replaced and pushed out as
// documented, also while several threads use the link at once (run under TSan).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine_link.h"

namespace {

// What one subscriber heard.
struct Heard {
    std::mutex mutex;
    std::vector<std::string> news;
    void add(const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex);
        news.push_back(text);
    }
    std::vector<std::string> taken() {
        std::lock_guard<std::mutex> lock(mutex);
        return news;
    }
};

void onUnusable(void* context, unsigned long long key, int status, const char* why) {
    static_cast<Heard*>(context)->add(std::to_string(key) + " " + std::to_string(status) + " " +
                                      why);
}

void onLost(void* context, const char* ufrag, const char* why) {
    static_cast<Heard*>(context)->add(std::string("lost ") + ufrag + " " + why);
}

// The alternative for `ufrag` as text; "-" when there is none.
std::string alternative(const std::string& ufrag) {
    char* copy = zarn_link_copy_alternative(ufrag.c_str(), 0);
    std::string text = copy ? copy : "-";
    free(copy);
    return text;
}

TEST(EngineLink, TextKeysAreFnv1a64OverTheBytes) {
    struct Case {
        const char* text;
        unsigned long long key;
    };
    // Published FNV-1a vectors, and bytes above 0x7f taken unsigned.
    for (const Case& c : std::vector<Case>{{"", 0xcbf29ce484222325ULL},
                                           {"a", 0xaf63dc4c8601ec8cULL},
                                           {"foobar", 0x85944171f73967e8ULL},
                                           {"\xff", 0xaf64724c8602eb6eULL},
                                           {"v=0\r\n", 0x95ecaae27305fcf3ULL}}) {
        EXPECT_EQ(zarn_link_text_key(c.text), c.key) << c.text;
    }
    EXPECT_EQ(zarn_link_text_key(nullptr), 0ULL);
}

TEST(EngineLink, UnusableNewsReachesItsSubscribersOnly) {
    Heard unusable, lost, other;
    EXPECT_EQ(zarn_link_subscribe_unusable(nullptr, &unusable), 0);
    int a = zarn_link_subscribe_unusable(onUnusable, &unusable);
    int b = zarn_link_subscribe(onLost, &lost);
    int c = zarn_link_subscribe_unusable(onUnusable, &other);
    ASSERT_GT(a, 0);
    EXPECT_NE(a, b);
    EXPECT_NE(b, c);

    const char* offer = "v=0\r\nm=audio 0 RTP/AVP 0\r\n";
    zarn_link_report_unusable(offer, 488, "no audio or video to use");
    zarn_link_report_unusable(nullptr, 488, "nothing");  // names no text: dropped
    zarn_link_report_unusable("v=0\r\n", 500, nullptr);
    zarn_link_unsubscribe(c);
    zarn_link_report_lost("abcd", "ICE failed");
    zarn_link_report_unusable("v=0\r\n", 488, "after c left");

    std::string key = std::to_string(zarn_link_text_key(offer));
    std::string key0 = std::to_string(zarn_link_text_key("v=0\r\n"));
    EXPECT_EQ(unusable.taken(),
              (std::vector<std::string>{key + " 488 no audio or video to use", key0 + " 500 ",
                                        key0 + " 488 after c left"}));
    EXPECT_EQ(other.taken(),
              (std::vector<std::string>{key + " 488 no audio or video to use", key0 + " 500 "}));
    EXPECT_EQ(lost.taken(), (std::vector<std::string>{"lost abcd ICE failed"}));
    zarn_link_unsubscribe(a);
    zarn_link_unsubscribe(b);
    zarn_link_unsubscribe(a);  // twice: nothing
}

TEST(EngineLink, UnsubscribeWaitsForARunningReport) {
    struct Slow {
        std::atomic<bool> inside{false};
        std::atomic<bool> finished{false};
    } slow;
    int token = zarn_link_subscribe_unusable(
        [](void* context, unsigned long long, int, const char*) {
            auto* s = static_cast<Slow*>(context);
            s->inside = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            s->finished = true;
        },
        &slow);
    std::thread media([] { zarn_link_report_unusable("v=0\r\n", 488, "slow"); });
    while (!slow.inside) std::this_thread::yield();
    zarn_link_unsubscribe(token);
    EXPECT_TRUE(slow.finished) << "unsubscribe returned while the subscriber still ran";
    media.join();
}

TEST(EngineLink, AlternativesAreKeptReplacedAndPushedOut) {
    zarn_link_put_alternative("kept", "offer 1");
    EXPECT_EQ(alternative("kept"), "offer 1");
    EXPECT_EQ(alternative("kept"), "offer 1") << "a copy leaves the entry";
    zarn_link_put_alternative("kept", "offer 2");
    EXPECT_EQ(alternative("kept"), "offer 2");
    zarn_link_forget_alternative("kept");
    EXPECT_EQ(alternative("kept"), "-");
    zarn_link_put_alternative("nulled", "offer");
    zarn_link_put_alternative("nulled", nullptr);
    EXPECT_EQ(alternative("nulled"), "-");

    zarn_link_put_alternative("", "offer");  // no fragment: nothing kept
    EXPECT_EQ(alternative(""), "-");

    // A list is tried in order; past its end there is nothing.
    const char* variants[] = {"avp", nullptr, "dtls"};
    zarn_link_put_alternatives("list", variants, 3);
    for (int i = 0; i < 3; ++i) {
        char* copy = zarn_link_copy_alternative("list", i);
        EXPECT_STREQ(copy, i == 0 ? "avp" : i == 1 ? "dtls" : nullptr) << i;
        free(copy);
    }
    zarn_link_forget_alternative("list");

    // At most 64: the oldest goes first, and one put again counts as new.
    for (int i = 0; i < 64; ++i)
        zarn_link_put_alternative(("u" + std::to_string(i)).c_str(), std::to_string(i).c_str());
    zarn_link_put_alternative("u0", "0 again");
    zarn_link_put_alternative("u64", "64");
    EXPECT_EQ(alternative("u0"), "0 again");
    EXPECT_EQ(alternative("u1"), "-");
    EXPECT_EQ(alternative("u2"), "2");
    EXPECT_EQ(alternative("u64"), "64");
    for (int i = 0; i <= 64; ++i) zarn_link_forget_alternative(("u" + std::to_string(i)).c_str());
}

// Media threads report and store while SIP threads come, go and take: no report after
// an unsubscribe returned, every copy whole.
TEST(EngineLink, ConcurrentUse) {
    std::atomic<bool> stop{false};
    std::atomic<int> late{0}, torn{0};
    std::vector<std::thread> threads;
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back([&, r] {
            std::string ufrag = "media" + std::to_string(r);
            std::string sdp(200, static_cast<char>('a' + r));
            while (!stop) {
                zarn_link_report_unusable(sdp.c_str(), 488, "racing");
                zarn_link_report_lost(ufrag.c_str(), "racing");
                zarn_link_put_alternative(ufrag.c_str(), sdp.c_str());
                zarn_link_forget_alternative(ufrag.c_str());
            }
        });
    }
    for (int s = 0; s < 2; ++s) {
        threads.emplace_back([&, s] {
            struct Subscriber {
                std::atomic<bool> gone{false};
                std::atomic<int>* late;
            };
            for (int i = 0; i < 300; ++i) {
                Subscriber sub;
                sub.late = &late;
                auto fn = [](void* context, unsigned long long, int, const char*) {
                    auto* me = static_cast<Subscriber*>(context);
                    if (me->gone) ++*me->late;
                };
                int token = zarn_link_subscribe_unusable(fn, &sub);
                char* copy = zarn_link_copy_alternative(("media" + std::to_string(s)).c_str(), 0);
                if (copy && std::string(copy) != std::string(200, static_cast<char>('a' + s)))
                    ++torn;
                free(copy);
                zarn_link_unsubscribe(token);
                sub.gone = true;  // a report from here on would be late
            }
        });
    }
    for (size_t i = 2; i < threads.size(); ++i) threads[i].join();
    stop = true;
    threads[0].join();
    threads[1].join();
    EXPECT_EQ(late, 0);
    EXPECT_EQ(torn, 0);
}

}  // namespace
