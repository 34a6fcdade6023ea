// Digest answers: the published example, what servers send, and passwords with
// the characters the stack's own credential syntax cannot carry.
#include <gtest/gtest.h>

#include "digest.h"

namespace {

using sipengine::DigestChallenge;

std::string field(const std::string& header, const std::string& name) {
    size_t at = header.find(name + "=");
    if (at == std::string::npos) return "";
    size_t end = header.find(", ", at);
    return header.substr(at + name.size() + 1,
                         end == std::string::npos ? end : end - at - name.size() - 1);
}

TEST(Digest, AnswersMatchThePublishedExample) {
    DigestChallenge ch;
    ASSERT_TRUE(
        sipengine::parseDigestChallenge({"realm=\"testrealm@host.com\"", "qop=\"auth,auth-int\"",
                                         "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\"",
                                         "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\""},
                                        &ch));
    std::string h = sipengine::digestAuthorization(ch, "Mufasa", "Circle Of Life",
                                                   {"GET", "/dir/index.html", "0a4f113b", 1});
    EXPECT_EQ(field(h, "response"), "\"6629fae49393a05397450978507c4ef1\"") << h;
    EXPECT_EQ(field(h, "nc"), "00000001");
    EXPECT_EQ(field(h, "opaque"), "\"5ccc069c403ebaf9f0171e9517f40e41\"");

    // Without qop (what the test server sends) the answer has no nc or cnonce.
    ch.qopAuth = false;
    h = sipengine::digestAuthorization(ch, "Mufasa", "Circle Of Life",
                                       {"GET", "/dir/index.html", "", 1});
    EXPECT_EQ(field(h, "response"), "\"670fd8c2df070c60b045671b8b24ff02\"") << h;
    EXPECT_EQ(h.find("cnonce"), std::string::npos);
}

TEST(Digest, ChallengesAreReadDefensively) {
    DigestChallenge ch;
    EXPECT_FALSE(sipengine::parseDigestChallenge({}, &ch));
    EXPECT_FALSE(sipengine::parseDigestChallenge({"realm=\"r\""}, &ch)) << "no nonce";
    EXPECT_FALSE(sipengine::parseDigestChallenge({"nonce=\"n\"", "algorithm=SHA-512-256"}, &ch));
    EXPECT_FALSE(sipengine::parseDigestChallenge({"nonce=\"\""}, &ch));
    ASSERT_TRUE(
        sipengine::parseDigestChallenge({"garbage", "=", "REALM=\"a \\\"b\\\"\"", "Nonce=n1",
                                         "stale=TRUE", "qop=auth-int", "algorithm=md5"},
                                        &ch));
    EXPECT_EQ(ch.realm, "a \"b\"");
    EXPECT_EQ(ch.nonce, "n1");
    EXPECT_TRUE(ch.stale);
    EXPECT_FALSE(ch.qopAuth) << "only auth-int offered";
}

TEST(Digest, AnyPasswordAndUserNameSurviveQuoting) {
    DigestChallenge ch;
    ASSERT_TRUE(sipengine::parseDigestChallenge({"realm=\"r\"", "nonce=\"n\""}, &ch));
    const std::string users[] = {"door", "a\"b", "c\\d", "e:f"};
    for (const std::string& user : users) {
        std::string h = sipengine::digestAuthorization(ch, user, "p@ss:w\"o\\rd \xc3\xbc",
                                                       {"REGISTER", "sip:r", "", 1});
        EXPECT_EQ(sipengine::unquoteString(field(h, "username")), user) << h;
    }
    // The password only enters the hash: different passwords, different answers.
    std::string a = sipengine::digestAuthorization(ch, "u", "pa:ss", {"REGISTER", "sip:r", "", 1});
    std::string b = sipengine::digestAuthorization(ch, "u", "pa", {"REGISTER", "sip:r", "", 1});
    EXPECT_NE(field(a, "response"), field(b, "response"));
}

}  // namespace
