#include "digest.h"

#include <openssl/evp.h>

#include <cctype>
#include <cstdio>

namespace sipengine {
namespace {

std::string md5Hex(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_Digest(data.data(), data.size(), digest, &len, EVP_md5(), nullptr) != 1) return "";
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < len; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 0xf];
    }
    return out;
}

bool equalsNoCase(const std::string& a, const char* b) {
    size_t i = 0;
    for (; i < a.size() && b[i]; ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return i == a.size() && !b[i];
}

// True when the comma-separated `list` holds `token` (case-insensitive).
bool listHas(const std::string& list, const char* token) {
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        std::string item =
            list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        size_t b = item.find_first_not_of(" \t"), e = item.find_last_not_of(" \t");
        if (b != std::string::npos && equalsNoCase(item.substr(b, e - b + 1), token)) return true;
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return false;
}

}  // namespace

std::string quoteString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string unquoteString(const std::string& text) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return text;
    std::string out;
    for (size_t i = 1; i + 1 < text.size(); ++i) {
        if (text[i] == '\\' && i + 2 < text.size()) ++i;
        out += text[i];
    }
    return out;
}

bool parseDigestChallenge(const std::vector<std::string>& params, DigestChallenge* out) {
    DigestChallenge c;
    for (const std::string& p : params) {
        size_t eq = p.find('=');
        if (eq == std::string::npos) continue;
        std::string name = p.substr(0, eq), value = unquoteString(p.substr(eq + 1));
        if (equalsNoCase(name, "realm"))
            c.realm = value;
        else if (equalsNoCase(name, "nonce"))
            c.nonce = value;
        else if (equalsNoCase(name, "opaque"))
            c.opaque = value;
        else if (equalsNoCase(name, "algorithm"))
            c.algorithm = value;
        else if (equalsNoCase(name, "qop"))
            c.qopAuth = listHas(value, "auth");
        else if (equalsNoCase(name, "stale"))
            c.stale = equalsNoCase(value, "true");
    }
    if (c.nonce.empty() || !(c.algorithm.empty() || equalsNoCase(c.algorithm, "MD5"))) return false;
    *out = c;
    return true;
}

std::string digestAuthorization(const DigestChallenge& ch, const std::string& user,
                                const std::string& password, const DigestRequest& req) {
    std::string ha1 = md5Hex(user + ":" + ch.realm + ":" + password);
    std::string ha2 = md5Hex(req.method + ":" + req.uri);
    char nc[9];
    snprintf(nc, sizeof(nc), "%08x", req.nc);
    std::string response =
        ch.qopAuth ? md5Hex(ha1 + ":" + ch.nonce + ":" + nc + ":" + req.cnonce + ":auth:" + ha2)
                   : md5Hex(ha1 + ":" + ch.nonce + ":" + ha2);
    std::string out = "Digest username=" + quoteString(user) + ", realm=" + quoteString(ch.realm) +
                      ", nonce=" + quoteString(ch.nonce) + ", uri=" + quoteString(req.uri) +
                      ", response=\"" + response + "\", algorithm=MD5";
    if (!ch.opaque.empty()) out += ", opaque=" + quoteString(ch.opaque);
    if (ch.qopAuth)
        out += ", qop=auth, nc=" + std::string(nc) + ", cnonce=" + quoteString(req.cnonce);
    return out;
}

}  // namespace sipengine
