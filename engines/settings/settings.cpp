#include "settings.h"

#include <arpa/inet.h>
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>

#include "link_settings.h"
#include "media_settings.h"
#include "sip_settings.h"

namespace zarnrtc {
namespace settings {

namespace {

std::string trim(const std::string& text) {
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

}  // namespace

bool parseInteger(const std::string& text, long lo, long hi, long* out) {
    std::string t = trim(text);
    if (t.empty() || t.size() > 20) return false;
    errno = 0;
    char* end = nullptr;
    long value = std::strtol(t.c_str(), &end, 10);
    if (*end || errno == ERANGE || value < lo || value > hi) return false;
    *out = value;
    return true;
}

bool parseBoolean(const std::string& text, bool* out) {
    size_t i = 0;
    if (!parseWord(text, {"1", "true", "yes", "on", "0", "false", "no", "off"}, &i)) return false;
    *out = i < 4;
    return true;
}

bool parseWord(const std::string& text, const std::vector<std::string>& words, size_t* index) {
    std::string t = trim(text);
    for (size_t i = 0; i < words.size(); ++i) {
        if (strcasecmp(t.c_str(), words[i].c_str()) == 0) {
            *index = i;
            return true;
        }
    }
    return false;
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        item = trim(item);
        if (!item.empty()) items.push_back(item);
    }
    return items;
}

bool isAddress(const std::string& text) {
    unsigned char buf[sizeof(in6_addr)];
    return inet_pton(AF_INET, text.c_str(), buf) == 1 ||
           inet_pton(AF_INET6, text.c_str(), buf) == 1;
}

bool isEndpoint(const std::string& text) {
    if (isAddress(text)) return true;
    std::string address, port;
    if (!text.empty() && text.front() == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos) return false;
        address = text.substr(1, close - 1);
        if (close + 1 == text.size())
            return address.find(':') != std::string::npos && isAddress(address);
        if (text[close + 1] != ':') return false;
        port = text.substr(close + 2);
        if (address.find(':') == std::string::npos) return false;
    } else {
        size_t colon = text.find(':');
        if (colon == std::string::npos || text.find(':', colon + 1) != std::string::npos)
            return false;
        address = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    long n = 0;
    return isAddress(address) && parseInteger(port, 1, 65535, &n) && port == trim(port);
}

bool isPlainText(const std::string& text) {
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f) return false;
    return true;
}

bool isBindAddress(const std::string& text) {
    if (text == "*" || isAddress(text)) return true;
    return text.size() > 2 && text.front() == '[' && text.back() == ']' &&
           text.find(':') != std::string::npos && isAddress(text.substr(1, text.size() - 2));
}

// ---- Source ----

std::map<std::string, std::string> Source::parseFile(const std::string& text,
                                                     std::vector<int>* bad) {
    std::map<std::string, std::string> values;
    std::stringstream in(text);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::string t = trim(line);
        if (t.empty() || t[0] == '#') continue;
        size_t eq = t.find('=');
        std::string key = eq == std::string::npos ? "" : trim(t.substr(0, eq));
        bool named = !key.empty();
        for (char c : key)
            if (!(isupper(static_cast<unsigned char>(c)) ||
                  isdigit(static_cast<unsigned char>(c)) || c == '_'))
                named = false;
        if (!named) {
            if (bad) bad->push_back(number);
            continue;
        }
        values[key] = trim(t.substr(eq + 1));
    }
    return values;
}

Source Source::process(const std::function<void(const std::string&)>& report) {
    Source source;
    const char* name = getenv("ZARNRTC_SETTINGS_FILE");
    if (!name || !*name) return source;
    source.fileName_ = name;
    std::ifstream in(name);
    std::stringstream text;
    if (!in || !(text << in.rdbuf())) {
        report(std::string("ZARNRTC_SETTINGS_FILE: cannot read ") + name +
               "; only the environment is used");
        return source;
    }
    std::vector<int> bad;
    source.file_ = parseFile(text.str(), &bad);
    for (int line : bad)
        report(std::string(name) + ":" + std::to_string(line) +
               ": not KEY=value, a comment or blank; ignored");
    return source;
}

Source Source::fixed(std::map<std::string, std::string> env,
                     std::map<std::string, std::string> file) {
    Source source;
    source.fixed_ = true;
    source.env_ = std::move(env);
    source.file_ = std::move(file);
    source.fileName_ = "settings file";
    return source;
}

std::optional<std::pair<std::string, std::string>> Source::lookup(const std::string& name,
                                                                  bool environmentOnly) const {
    if (fixed_) {
        auto it = env_.find(name);
        if (it != env_.end() && !it->second.empty())
            return std::make_pair(it->second, std::string("environment"));
    } else if (const char* value = getenv(name.c_str()); value && *value) {
        return std::make_pair(std::string(value), std::string("environment"));
    }
    if (environmentOnly) return std::nullopt;
    auto it = file_.find(name);
    if (it == file_.end() || it->second.empty()) return std::nullopt;
    return std::make_pair(it->second, fileName_);
}

void reportToStderr(const std::string& line) {
    fprintf(stderr, "zarnrtc settings: %s\n", line.c_str());
}

// ---- The records in force ----

namespace {

// Read once, whichever record loads first; its problems are reported once.
const Source& processSource() {
    static const Source* source = new Source(Source::process(reportToStderr));
    return *source;
}

template <typename Record>
class Store {
  public:
    explicit Store(const SettingTable<Record>& (*table)()) : table_(table) {}
    Record get() {
        std::lock_guard<std::mutex> lock(mutex_);
        return current();
    }
    Record replace(Record next) {
        std::lock_guard<std::mutex> lock(mutex_);
        Record previous = current();
        record_ = std::move(next);
        return previous;
    }

  private:
    Record& current() {
        if (!record_) record_ = load(table_(), processSource(), reportToStderr);
        return *record_;
    }
    std::mutex mutex_;
    const SettingTable<Record>& (*table_)();
    std::optional<Record> record_;
};

// Never destroyed: engines read settings from static destructors and other threads.
Store<SipSettings>& sipStore() {
    static auto* store = new Store<SipSettings>(sipSettingTable);
    return *store;
}
Store<MediaSettings>& mediaStore() {
    static auto* store = new Store<MediaSettings>(mediaSettingTable);
    return *store;
}
Store<LinkSettings>& linkStore() {
    static auto* store = new Store<LinkSettings>(linkSettingTable);
    return *store;
}

}  // namespace

SipSettings sipSettings() {
    return sipStore().get();
}
SipSettings useSipSettings(SipSettings next) {
    return sipStore().replace(std::move(next));
}
MediaSettings mediaSettings() {
    return mediaStore().get();
}
MediaSettings useMediaSettings(MediaSettings next) {
    return mediaStore().replace(std::move(next));
}
LinkSettings linkSettings() {
    return linkStore().get();
}
LinkSettings useLinkSettings(LinkSettings next) {
    return linkStore().replace(std::move(next));
}

}  // namespace settings
}  // namespace zarnrtc
