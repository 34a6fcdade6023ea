// The trust rules for requests outside a dialog, as tables: allow-list parsing of
// what an installer types, and who gets an answer.
#include <gtest/gtest.h>

#include "trust.h"

namespace {

using sipengine::Endpoint;
using sipengine::TrustFilter;
using Verdict = TrustFilter::Verdict;

TEST(Trust, AllowListTextIsParsedStrictly) {
    struct Row {
        const char* text;
        bool ok;
        std::vector<Endpoint> peers;
    } rows[] = {
        {"", true, {}},
        {" 10.0.0.5 ", true, {{"10.0.0.5", 0}}},
        {"10.0.0.5:5070,10.0.0.6", true, {{"10.0.0.5", 5070}, {"10.0.0.6", 0}}},
        {"[fd00::1]:5060, fd00::0002", true, {{"fd00::1", 5060}, {"fd00::2", 0}}},
        {"::ffff:192.0.2.1", true, {{"192.0.2.1", 0}}},
        {"10.0.0.5,,", true, {{"10.0.0.5", 0}}},
        {"door.example.org", false, {}},  // names would need DNS we do not trust
        {"10.0.0.5:", false, {}},
        {"10.0.0.5:0", false, {}},
        {"10.0.0.5:65536", false, {}},
        {"10.0.0.5:50x", false, {}},
        {"[fd00::1", false, {}},
        {"[fd00::1]5060", false, {}},
        {"10.0.0.256", false, {}},
        {"10.0.0.5, nonsense", false, {}},
    };
    for (const Row& row : rows) {
        std::vector<Endpoint> out{{"sentinel", 1}};
        EXPECT_EQ(sipengine::parseEndpointList(row.text, &out), row.ok) << row.text;
        if (row.ok)
            EXPECT_EQ(out, row.peers) << row.text;
        else
            EXPECT_EQ(out.size(), 1u) << "a bad list must leave the old one: " << row.text;
    }
}

TEST(Trust, OnlyTheRegistrarOrAListedPeerIsHeard) {
    TrustFilter filter;
    auto now = TrustFilter::Clock::now();
    const Endpoint registrar{"192.0.2.10", 5060};
    // Before any registration, nobody is trusted.
    EXPECT_EQ(filter.check(registrar, true, now), Verdict::kRefuse);

    filter.setServer(1, registrar);
    filter.setAllowedPeers({{"198.51.100.7", 0}, {"198.51.100.8", 5070}});
    struct Row {
        Endpoint from;
        bool addressed;
        Verdict verdict;
    } rows[] = {
        {registrar, true, Verdict::kAccept},
        {registrar, false, Verdict::kRefuse},            // not for our account
        {{"192.0.2.10", 5062}, true, Verdict::kRefuse},  // a stranger on the server's host
        {{"192.0.2.11", 5060}, true, Verdict::kRefuse},
        {{"198.51.100.7", 40000}, true, Verdict::kAccept},  // listed, any port
        {{"198.51.100.8", 5070}, true, Verdict::kAccept},
        {{"198.51.100.8", 5071}, true, Verdict::kRefuse},  // listed with another port
    };
    for (const Row& row : rows)
        EXPECT_EQ(filter.check(row.from, row.addressed, now), row.verdict)
            << row.from.address << ":" << row.from.port;

    filter.forgetServer(1);
    EXPECT_EQ(filter.check(registrar, true, now), Verdict::kRefuse);
}

TEST(Trust, AFloodIsRefusedThenDroppedThenRefusedAgain) {
    TrustFilter filter;
    auto now = TrustFilter::Clock::now();
    const Endpoint stranger{"203.0.113.9", 5060};
    int refused = 0, dropped = 0;
    for (int i = 0; i < 300; ++i)
        (filter.check(stranger, true, now) == Verdict::kRefuse ? refused : dropped)++;
    EXPECT_EQ(refused, TrustFilter::kRefusalsPerSecond);
    EXPECT_EQ(dropped, 300 - TrustFilter::kRefusalsPerSecond);
    EXPECT_EQ(filter.check(stranger, true, now + std::chrono::seconds(1)), Verdict::kRefuse);
}

}  // namespace
