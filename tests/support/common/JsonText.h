// Reading a JSON document a test got as text (a tool's --json output, the
// engine's file list): one reader for every suite.
#pragma once

#include <json/json.h>

#include <string>

namespace orin::xfer::test {

// The document in `text`; a test expectation fails, naming the parser's
// complaint and the text, when it is not valid JSON.
Json::Value ParseJsonText(const std::string& text);

}  // namespace orin::xfer::test
