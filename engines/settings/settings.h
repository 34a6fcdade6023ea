// The host engines' settings: the value parsers every record shares, and the loader
// that fills a record from the environment and an optional key=value file. A record
// (sip_settings.h, media_settings.h, link_settings.h) is a plain struct whose
// initialisers are the defaults, followed by its table: one row per field with the
// variable that sets it and what it accepts. A value that does not parse or is out
// of range is refused with one line on stderr naming the variable and what it
// accepts, and the field keeps its default: never a silent zero.
//
// Where a value comes from, first found wins:
//   1. the environment variable (an empty value counts as unset);
//   2. the same name in the file named by ZARNRTC_SETTINGS_FILE (KEY=value lines,
//      '#' comments; read once per process);
//   3. the record's default.
// Environment-only rows (variables of the system, such as TMPDIR) skip the file.
#ifndef ZARNRTC_ENGINES_SETTINGS_H
#define ZARNRTC_ENGINES_SETTINGS_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#define ZARN_SETTINGS_API __attribute__((visibility("default")))

namespace zarnrtc {
namespace settings {

// ---- Parsers: text in, a value or false. Surrounding blanks are ignored. ----

// A whole decimal number in lo..hi.
ZARN_SETTINGS_API bool parseInteger(const std::string& text, long lo, long hi, long* out);
// 1/0, true/false, yes/no, on/off (any case).
ZARN_SETTINGS_API bool parseBoolean(const std::string& text, bool* out);
// The index of the word (any case) in words.
ZARN_SETTINGS_API bool parseWord(const std::string& text, const std::vector<std::string>& words,
                                 size_t* index);
// Comma-separated items, blanks trimmed, empty items dropped.
ZARN_SETTINGS_API std::vector<std::string> splitList(const std::string& text);
// An IPv4 or IPv6 address literal (no brackets, no port).
ZARN_SETTINGS_API bool isAddress(const std::string& text);
// ADDRESS, IPv4:PORT, [IPv6] or [IPv6]:PORT, port 1..65535.
ZARN_SETTINGS_API bool isEndpoint(const std::string& text);
// Printable text without control characters.
ZARN_SETTINGS_API bool isPlainText(const std::string& text);
// An address to bind to: an address literal, [IPv6], or * for every interface.
ZARN_SETTINGS_API bool isBindAddress(const std::string& text);

// ---- Where values come from ----

class ZARN_SETTINGS_API Source {
  public:
    // The process's environment over the file named by ZARNRTC_SETTINGS_FILE. Problems
    // with the file (unreadable, a line that is not KEY=value) go to `report`.
    static Source process(const std::function<void(const std::string&)>& report);
    // Fixed values, for tests: `env` as the environment, `file` as the file's.
    static Source fixed(std::map<std::string, std::string> env,
                        std::map<std::string, std::string> file = {});
    // The value of `name` and where it came from ("environment", or the file's path);
    // nothing when neither sets it. File values are skipped for environment-only rows.
    std::optional<std::pair<std::string, std::string>> lookup(const std::string& name,
                                                              bool environmentOnly) const;

    // KEY=value lines; a line that is neither that, blank nor a '#' comment is named
    // in `bad` (line numbers from 1).
    static std::map<std::string, std::string> parseFile(const std::string& text,
                                                        std::vector<int>* bad);

  private:
    bool fixed_ = false;
    std::map<std::string, std::string> env_;
    std::map<std::string, std::string> file_;
    std::string fileName_;
};

// ---- Records ----

// One field of a record: the variable that sets it and how its text is taken.
template <typename Record>
struct Setting {
    std::string variable;
    // What it accepts, as the refusal says it: "1..3600 (seconds)", "none, device".
    std::string accepted;
    // Sets the field from text; false refuses the text (the field stays at its
    // default unless the row says otherwise).
    std::function<bool(const std::string& text, Record& into)> take;
    // The field's value as text, for the refusal's "using ...".
    std::function<std::string(const Record&)> show;
    bool environmentOnly = false;
};

template <typename Record>
using SettingTable = std::vector<Setting<Record>>;

// A record with every row of `table` looked up in `source`; each refusal is one line
// to `report`.
template <typename Record>
Record load(const SettingTable<Record>& table, const Source& source,
            const std::function<void(const std::string&)>& report) {
    Record record;
    for (const Setting<Record>& row : table) {
        auto found = source.lookup(row.variable, row.environmentOnly);
        if (!found || row.take(found->first, record)) continue;
        report(row.variable + "=\"" + found->first + "\" (" + found->second +
               ") is refused: accepted " + row.accepted + "; using " + row.show(record));
    }
    return record;
}

// Where refusals go outside tests: one line each on stderr.
ZARN_SETTINGS_API void reportToStderr(const std::string& line);

// ---- Table rows, one maker per kind of value ----

template <typename Record>
Setting<Record> integer(const char* variable, int Record::*field, long lo, long hi,
                        const char* unit) {
    return {variable, std::to_string(lo) + ".." + std::to_string(hi) + " (" + unit + ")",
            [=](const std::string& text, Record& r) {
                long value = 0;
                if (!parseInteger(text, lo, hi, &value)) return false;
                r.*field = static_cast<int>(value);
                return true;
            },
            [=](const Record& r) { return std::to_string(r.*field); }};
}

template <typename Record>
Setting<Record> seconds(const char* variable, int Record::*field, long lo, long hi) {
    return integer(variable, field, lo, hi, "seconds");
}

// words[i] sets values[i]; several words may name one value.
template <typename Record, typename Value>
Setting<Record> word(const char* variable, Value Record::*field,
                     std::vector<std::pair<std::string, Value>> choices) {
    std::vector<std::string> words;
    std::string accepted;
    for (const auto& c : choices) {
        words.push_back(c.first);
        accepted += (accepted.empty() ? "" : ", ") + c.first;
    }
    return {variable, accepted,
            [=](const std::string& text, Record& r) {
                size_t i = 0;
                if (!parseWord(text, words, &i)) return false;
                r.*field = choices[i].second;
                return true;
            },
            [=](const Record& r) {
                for (const auto& c : choices)
                    if (c.second == r.*field) return c.first;
                return std::string("?");
            }};
}

template <typename Record>
Setting<Record> boolean(const char* variable, bool Record::*field) {
    return {variable, "1, 0, true, false, yes, no, on, off",
            [=](const std::string& text, Record& r) { return parseBoolean(text, &(r.*field)); },
            [=](const Record& r) { return std::string(r.*field ? "1" : "0"); }};
}

template <typename Record>
Setting<Record> text(const char* variable, std::string Record::*field, const char* what,
                     bool (*valid)(const std::string&) = isPlainText) {
    return {variable, what,
            [=](const std::string& value, Record& r) {
                if (!valid(value)) return false;
                r.*field = value;
                return true;
            },
            [=](const Record& r) {
                return (r.*field).empty() ? std::string("(none)") : "\"" + r.*field + "\"";
            }};
}

// A list whose items must each pass `valid`. One bad item refuses the value: the
// field keeps its default, or with `fallback` given, keeps the good items (the
// fallback when none is good), so that a typo cannot widen what the default allows.
template <typename Record>
Setting<Record> list(const char* variable, std::vector<std::string> Record::*field,
                     bool (*valid)(const std::string&), const char* what,
                     std::optional<std::vector<std::string>> fallback = std::nullopt) {
    return {variable, what,
            [=](const std::string& value, Record& r) {
                std::vector<std::string> items = splitList(value), good;
                for (const std::string& item : items)
                    if (valid(item)) good.push_back(item);
                if (good.size() == items.size()) {
                    r.*field = std::move(items);
                    return true;
                }
                if (fallback) r.*field = good.empty() ? *fallback : good;
                return false;
            },
            [=](const Record& r) {
                std::string shown;
                for (const std::string& item : r.*field) shown += (shown.empty() ? "" : ",") + item;
                return shown.empty() ? std::string("(none)") : shown;
            }};
}

// A variable of the system, not ours: taken as it is, from the environment only.
template <typename Record>
Setting<Record> systemVariable(const char* variable, std::string Record::*field) {
    Setting<Record> row = text(variable, field, "any text");
    row.take = [=](const std::string& value, Record& r) {
        r.*field = value;
        return true;
    };
    row.environmentOnly = true;
    return row;
}

}  // namespace settings
}  // namespace zarnrtc

#endif
