// The receiving side's check of names from the network: one test per rule,
// each refusal naming the name and the reason, and the symbolic-link check
// on real directories.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "TempDir.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::host;
using orin::xfer::test::TempDir;
namespace fs = std::filesystem;

std::string Refusal(const std::string& name)
{
    std::string error;
    EXPECT_FALSE(CheckRemoteName(name, error)) << QuoteRemoteName(name) << " was accepted";
    return error;
}

bool Accepted(const std::string& name)
{
    std::string error;
    const bool accepted = CheckRemoteName(name, error);
    EXPECT_TRUE(accepted) << error;
    return accepted;
}

TEST(RemoteNameGuardTest, OrdinaryRelativeNamesPass)
{
    EXPECT_TRUE(Accepted("a.txt"));
    EXPECT_TRUE(Accepted("dir/sub/file name with spaces.tar.gz"));
    EXPECT_TRUE(Accepted(".hidden/..dots/...three/a..b"));
    EXPECT_TRUE(Accepted("caf\xC3\xA9/\xE6\x97\xA5\xE6\x9C\xAC/\xF0\x9F\x93\x81"));  // café/日本/📁
    EXPECT_TRUE(Accepted("name(1).ext"));
}

TEST(RemoteNameGuardTest, EmptyNameIsRefused) { EXPECT_NE(Refusal("").find("it is empty"), std::string::npos); }

TEST(RemoteNameGuardTest, AbsolutePathIsRefused)
{
    const std::string error = Refusal("/etc/passwd");
    EXPECT_EQ(error, "refused remote name \"/etc/passwd\": it is an absolute path");
}

TEST(RemoteNameGuardTest, DotDotComponentIsRefused)
{
    EXPECT_EQ(Refusal("../escape"), "refused remote name \"../escape\": it has a \"..\" component");
    EXPECT_NE(Refusal("a/../../b").find("\"..\" component"), std::string::npos);
    EXPECT_NE(Refusal("a/..").find("\"..\" component"), std::string::npos);
    EXPECT_NE(Refusal("..").find("\"..\" component"), std::string::npos);
}

TEST(RemoteNameGuardTest, DotComponentIsRefused)
{
    EXPECT_NE(Refusal("./a").find("\".\" component"), std::string::npos);
    EXPECT_NE(Refusal("a/./b").find("\".\" component"), std::string::npos);
    EXPECT_NE(Refusal(".").find("\".\" component"), std::string::npos);
}

TEST(RemoteNameGuardTest, BackslashIsRefused)
{
    EXPECT_EQ(Refusal("..\\..\\windows"), "refused remote name \"..\\\\..\\\\windows\": it contains a backslash");
    EXPECT_NE(Refusal("a\\b").find("backslash"), std::string::npos);
}

TEST(RemoteNameGuardTest, EmptyComponentsAreRefused)
{
    for (const std::string name : {"a/", "a//b", "dir/sub/"}) {
        EXPECT_NE(Refusal(name).find("empty component"), std::string::npos) << name;
    }
}

TEST(RemoteNameGuardTest, NulIsRefused)
{
    const std::string name("a\0b", 3);
    EXPECT_EQ(Refusal(name), "refused remote name \"a\\x00b\": it contains a NUL byte");
}

TEST(RemoteNameGuardTest, ControlCharactersAreRefused)
{
    EXPECT_EQ(Refusal("line\nbreak"), "refused remote name \"line\\x0Abreak\": it contains a control character");
    EXPECT_NE(Refusal("tab\there").find("control character"), std::string::npos);
    EXPECT_NE(Refusal("esc\x1b[31m").find("\\x1B"), std::string::npos);
    EXPECT_NE(Refusal("del\x7f").find("control character"), std::string::npos);
    EXPECT_NE(Refusal(std::string("\x01")).find("control character"), std::string::npos);
}

TEST(RemoteNameGuardTest, InvalidUtf8IsRefused)
{
    const std::vector<std::string> invalid = {
        "\xFF",                  // never valid
        "a\xC3",                 // cut sequence
        "\xC0\xAF",              // overlong "/"
        "\xE0\x80\xAF",          // overlong three-byte
        "\xED\xA0\x80",          // surrogate
        "\xF4\x90\x80\x80",      // past U+10FFFF
        "\x80",                  // stray continuation byte
        "\xE2\x82",              // cut three-byte sequence
    };
    for (const std::string& name : invalid) {
        const std::string error = Refusal(name);
        EXPECT_NE(error.find("not valid UTF-8"), std::string::npos) << error;
        EXPECT_NE(error.find("\\x"), std::string::npos) << "bytes must be escaped: " << error;
    }
}

TEST(RemoteNameGuardTest, OverLongComponentIsRefused)
{
    EXPECT_TRUE(Accepted(std::string(255, 'c')));
    const std::string error = Refusal("dir/" + std::string(256, 'c'));
    EXPECT_NE(error.find("a component is 256 bytes long, more than 255"), std::string::npos) << error;
}

TEST(RemoteNameGuardTest, OverLongPathIsRefused)
{
    std::string name;
    while (name.size() < 4096) {
        name += std::string(99, 'p') + "/";
    }
    name.resize(4096);
    name.back() = 'x';
    EXPECT_TRUE(Accepted(name));
    name += "y";
    const std::string error = Refusal(name);
    EXPECT_NE(error.find("4097 bytes long, more than 4096"), std::string::npos) << error;
    EXPECT_LT(error.size(), 300u) << "the message quotes only the start of a long name";
}

TEST(RemoteNameGuardTest, QuotingEscapesWhatATerminalWouldInterpret)
{
    EXPECT_EQ(QuoteRemoteName("plain"), "\"plain\"");
    EXPECT_EQ(QuoteRemoteName("say \"hi\""), "\"say \\\"hi\\\"\"");
    EXPECT_EQ(QuoteRemoteName("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
    EXPECT_EQ(QuoteRemoteName("\x1b[2J\xFF"), "\"\\x1B[2J\\xFF\"");
}

TEST(RemoteNameGuardTest, PrintableTextKeepsTheTerminalSafe)
{
    EXPECT_EQ(PrintableText("plain \"text\" \\ caf\xC3\xA9"), "plain \"text\" \\ caf\xC3\xA9");
    EXPECT_EQ(PrintableText("\x1b]0;owned\x07\r\nnext\xFF"), "\\x1B]0;owned\\x07\\x0D\\x0Anext\\xFF");
}

class DestinationParentsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mRoot = mScratch.Path();
        mDest = mRoot + "/dest";
        mOutside = mRoot + "/outside";
        fs::create_directories(mDest + "/real/deeper");
        fs::create_directories(mOutside);
        std::ofstream(mDest + "/plain.txt") << "x";
    }

    TempDir mScratch;
    std::string mRoot;
    std::string mDest;
    std::string mOutside;
};

TEST_F(DestinationParentsTest, ExistingRealDirectoriesAndMissingParentsPass)
{
    std::string error;
    EXPECT_TRUE(CheckDestinationParents(mDest, "top.txt", error)) << error;
    EXPECT_TRUE(CheckDestinationParents(mDest, "real/deeper/file", error)) << error;
    EXPECT_TRUE(CheckDestinationParents(mDest, "real/new/newer/file", error)) << error;
    EXPECT_TRUE(CheckDestinationParents(mDest, "missing/a/b", error)) << error;
}

TEST_F(DestinationParentsTest, SymbolicLinkAmongTheParentsIsRefused)
{
    fs::create_directory_symlink(mOutside, mDest + "/link");
    std::string error;
    EXPECT_FALSE(CheckDestinationParents(mDest, "link/passwd", error));
    EXPECT_EQ(error, "refused remote name \"link/passwd\": " + mDest + "/link is a symbolic link");
}

TEST_F(DestinationParentsTest, DeepSymbolicLinkIsRefused)
{
    fs::create_directory_symlink(mOutside, mDest + "/real/deeper/hop");
    std::string error;
    EXPECT_FALSE(CheckDestinationParents(mDest, "real/deeper/hop/x/y.txt", error));
    EXPECT_NE(error.find("real/deeper/hop is a symbolic link"), std::string::npos) << error;
}

TEST_F(DestinationParentsTest, DanglingSymbolicLinkIsRefused)
{
    fs::create_symlink(mRoot + "/nowhere", mDest + "/dangling");
    std::string error;
    EXPECT_FALSE(CheckDestinationParents(mDest, "dangling/file", error));
    EXPECT_NE(error.find("dangling is a symbolic link"), std::string::npos) << error;
}

TEST_F(DestinationParentsTest, TheFinalComponentItselfIsNotAParent)
{
    // The last component is the entry itself: a clash there is renamed by
    // the receiver, never followed.
    fs::create_directory_symlink(mOutside, mDest + "/entry");
    std::string error;
    EXPECT_TRUE(CheckDestinationParents(mDest, "entry", error)) << error;
}

TEST_F(DestinationParentsTest, ThePlainFileParentLeadsNowhere)
{
    std::string error;
    EXPECT_TRUE(CheckDestinationParents(mDest, "plain.txt/child", error)) << error;
}

TEST_F(DestinationParentsTest, TheDestinationRootMayItselfBeALink)
{
    fs::create_directory_symlink(mDest, mRoot + "/dest-link");
    std::string error;
    EXPECT_TRUE(CheckDestinationParents(mRoot + "/dest-link", "real/deeper/file", error)) << error;
}

}  // namespace
}  // namespace orin::xfer::test
