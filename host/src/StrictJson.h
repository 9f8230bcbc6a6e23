// The one way the host kit reads a file list's JSON: strict mode (no
// comments, no trailing text, unique keys), nested no deeper than a list
// ever is. Callers word their own errors.
//
// Memory: a parsed document costs far more than its text (a bare 0 in an
// array becomes a whole value), so the shape is checked in one pass over
// the text first, and a list of the wrong shape is refused before any of
// it is parsed: no values deeper than a list's three levels but for a
// short array of plain values inside an entry (a modification time is
// [seconds, nanoseconds]), the entries array holding objects only and at
// most kMaxListElements of them, each entry at most kMaxEntryKeys keys and
// kMaxEntryBytes bytes.
//
// THREADING CONTRACT: a pure function; safe from any thread.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace orin::xfer::host::detail {

// Our documents are three levels deep; anything much deeper is hostile.
inline constexpr int kFileListDepthLimit = 16;

inline constexpr size_t kMaxListLevels = 3;  // the document, its entries array, an entry
inline constexpr size_t kMaxListElements = 1000000;
inline constexpr size_t kMaxEntryKeys = 32;
inline constexpr size_t kMaxEntryBytes = 64u << 10;
inline constexpr size_t kMaxEntryArrayValues = 8;  // an array inside an entry

// Empty when the text has the shape of a file list; otherwise what is wrong.
// `entriesHint` (when given) gets an upper bound of the entries.
inline std::string ListShapeProblem(const std::string& json, size_t* entriesHint = nullptr)
{
    size_t entryObjects = 0;
    struct Open {
        char kind;
        size_t start;
        size_t elements;
    };
    std::vector<Open> open;
    bool inString = false;
    bool objectDue = false;  // an element of an array of entries comes next
    size_t tooDeepAt = std::string::npos;
    for (size_t at = 0; at < json.size(); ++at) {
        const char c = json[at];
        if (inString) {
            if (c == '\\') {
                ++at;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            continue;
        }
        if (objectDue && c != '{' && c != ']') {
            return "entry " + std::to_string(open.back().elements) + " is not an object";
        }
        objectDue = false;
        if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (open.size() >= static_cast<size_t>(kFileListDepthLimit)) {
                return {};  // jsoncpp refuses this depth itself, before it costs anything
            }
            open.push_back(Open{c, at, 0});
            const bool valueArrayInEntry = open.size() == kMaxListLevels + 1 && c == '[';
            if (open.size() > kMaxListLevels && !valueArrayInEntry && tooDeepAt == std::string::npos) {
                tooDeepAt = at;
            }
            objectDue = c == '[' && open.size() == 2 && open.front().kind == '{';
            entryObjects += c == '{' && open.size() == kMaxListLevels ? 1 : 0;
        } else if (c == '}' || c == ']') {
            if (!open.empty()) {
                if (open.size() == kMaxListLevels && at - open.back().start > kMaxEntryBytes) {
                    return "an entry at byte " + std::to_string(open.back().start) + " is longer than " +
                           std::to_string(kMaxEntryBytes) + " bytes";
                }
                open.pop_back();
            }
        } else if (c == ',' && !open.empty()) {
            Open& current = open.back();
            ++current.elements;
            if (current.kind == '[' && current.elements >= kMaxListElements) {
                return "more than " + std::to_string(kMaxListElements) + " entries";
            }
            if (open.size() == kMaxListLevels + 1 && current.elements >= kMaxEntryArrayValues) {
                return "an array at byte " + std::to_string(current.start) + " has more than " +
                       std::to_string(kMaxEntryArrayValues) + " values";
            }
            if (current.kind == '{' && current.elements >= kMaxEntryKeys) {
                return "an object at byte " + std::to_string(current.start) + " has more than " +
                       std::to_string(kMaxEntryKeys) + " keys";
            }
            if (open.size() == kMaxListLevels && at - current.start > kMaxEntryBytes) {
                return "an entry at byte " + std::to_string(current.start) + " is longer than " +
                       std::to_string(kMaxEntryBytes) + " bytes";
            }
            objectDue = current.kind == '[' && open.size() == 2 && open.front().kind == '{';
        }
    }
    if (tooDeepAt != std::string::npos) {
        return "nested deeper than a file list at byte " + std::to_string(tooDeepAt);
    }
    if (entriesHint != nullptr) {
        *entriesHint = entryObjects;
    }
    return {};
}

// Where `json` has a '/' outside a string (a comment: JSON has no other use
// for one), or npos. jsoncpp skips comments even in its strict mode.
inline size_t SlashOutsideStrings(const std::string& json)
{
    bool inString = false;
    for (size_t at = 0; at < json.size(); ++at) {
        const char c = json[at];
        if (inString) {
            if (c == '\\') {
                ++at;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '/') {
            return at;
        }
    }
    return std::string::npos;
}

// False with jsoncpp's `problems` when `json` does not read. Nesting past
// the limit throws (jsoncpp's own way of refusing it).
inline bool ReadStrictJson(const std::string& json, Json::Value& document, std::string& problems)
{
    if (const size_t slash = SlashOutsideStrings(json); slash != std::string::npos) {
        problems = "a comment at byte " + std::to_string(slash) + " (the list is strict JSON)";
        return false;
    }
    if (std::string shape = ListShapeProblem(json); !shape.empty()) {
        problems = std::move(shape);
        return false;
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["stackLimit"] = kFileListDepthLimit;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(json.data(), json.data() + json.size(), &document, &problems);
}

}  // namespace orin::xfer::host::detail
