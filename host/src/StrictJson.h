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

// False with jsoncpp's `problems` when `json` does not read. Nesting past
// the limit throws (jsoncpp's own way of refusing it).
inline bool ReadStrictJson(const std::string& json, Json::Value& document, std::string& problems)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["stackLimit"] = kFileListDepthLimit;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(json.data(), json.data() + json.size(), &document, &problems);
}

}  // namespace orin::xfer::host::detail
