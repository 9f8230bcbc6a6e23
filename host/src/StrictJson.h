// The one way the host kit reads a file list's JSON: strict mode (no
// comments, no trailing text, unique keys), nested no deeper than a list
// ever is. Callers word their own errors.
//
// THREADING CONTRACT: a pure function; safe from any thread.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>

namespace orin::xfer::host::detail {

// Our documents are three levels deep; anything much deeper is hostile.
inline constexpr int kFileListDepthLimit = 16;

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
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["stackLimit"] = kFileListDepthLimit;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(json.data(), json.data() + json.size(), &document, &problems);
}

}  // namespace orin::xfer::host::detail
