#include "JsonText.h"

#include <gtest/gtest.h>

#include <memory>

namespace orin::xfer::test {

Json::Value ParseJsonText(const std::string& text)
{
    Json::Value document;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &document, &errors)) << errors << "\n"
                                                                                              << text;
    return document;
}

}  // namespace orin::xfer::test
