#include "FileListTimes.h"

#include <json/json.h>

#include <algorithm>
#include <exception>

#include "StrictJson.h"

namespace orin::xfer::host::detail {
namespace {

constexpr const char* kTimeKey = "mtime";
constexpr long kNanosecondsPerSecond = 1000000000L;

bool ReadList(const std::string& json, Json::Value& document)
{
    std::string problems;
    try {
        if (!ReadStrictJson(json, document, problems)) {
            return false;
        }
    } catch (const std::exception&) {
        return false;
    }
    return document.isObject() && document["fileList"].isArray();
}

std::string RequestNameOf(const Json::Value& entry)
{
    if (!entry.isObject() || !entry["filePath"].isString() || !entry["fileName"].isString()) {
        return "";
    }
    const std::string filePath = entry["filePath"].asString();
    const std::string fileName = entry["fileName"].asString();
    return filePath.empty() ? fileName : filePath + "/" + fileName;
}

}  // namespace

bool AddModificationTimes(std::string& json, const SourcePlan& plan, std::string& error)
{
    Json::Value document;
    if (!ReadList(json, document)) {
        error = "the engine's file list cannot be read to add modification times";
        return false;
    }
    Json::Value& list = document["fileList"];
    const Json::ArrayIndex count = std::min<Json::ArrayIndex>(list.size(), static_cast<Json::ArrayIndex>(plan.entries.size()));
    for (Json::ArrayIndex i = 0; i < count; ++i) {
        const SourceEntry& source = plan.entries[i];
        if (RequestNameOf(list[i]) != source.relativePath) {
            continue;  // not the plan's entry: leave it without a time
        }
        Json::Value time(Json::arrayValue);
        time.append(static_cast<Json::Int64>(source.modified.tv_sec));
        time.append(static_cast<Json::Int64>(source.modified.tv_nsec));
        list[i][kTimeKey] = time;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    json = Json::writeString(builder, document);
    return true;
}

ModificationTimes ReadModificationTimes(const std::string& json)
{
    ModificationTimes times;
    Json::Value document;
    if (!ReadList(json, document)) {
        return times;
    }
    for (const Json::Value& entry : document["fileList"]) {
        const std::string name = RequestNameOf(entry);
        if (name.empty() || !entry.isMember(kTimeKey)) {
            continue;
        }
        const Json::Value& time = entry[kTimeKey];
        if (!time.isArray() || time.size() != 2 || !time[0].isInt64() || !time[1].isInt64()) {
            continue;
        }
        const Json::Int64 nanoseconds = time[1].asInt64();
        if (nanoseconds < 0 || nanoseconds >= kNanosecondsPerSecond) {
            continue;
        }
        timespec value{};
        value.tv_sec = static_cast<time_t>(time[0].asInt64());
        value.tv_nsec = static_cast<long>(nanoseconds);
        times.emplace(name, value);
    }
    return times;
}

}  // namespace orin::xfer::host::detail
