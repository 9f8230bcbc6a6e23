// NamePolicy: what each target allows, how kMap makes a name fit and
// MapBack restores it, and which names of a list land on the same name.
#include "xferfm/host/NamePolicy.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orin::xfer::host {
namespace {

const NamePolicy kWindowsRefuse(NameTarget::kWindows, NameAction::kRefuse);
const NamePolicy kWindowsMap(NameTarget::kWindows, NameAction::kMap);

void ExpectRefused(const std::string& name, NameProblem problem)
{
    const NameCheck check = kWindowsRefuse.Check(name);
    EXPECT_FALSE(check.ok) << name;
    EXPECT_EQ(check.reason, problem) << name;
    EXPECT_TRUE(check.mapped.empty()) << name;
    EXPECT_FALSE(check.message.empty()) << name;
}

void ExpectRoundTrip(const std::string& name)
{
    const NameCheck check = kWindowsMap.Check(name);
    ASSERT_TRUE(check.ok) << name << ": " << check.message;
    EXPECT_NE(check.mapped, name);
    EXPECT_TRUE(kWindowsRefuse.Check(check.mapped).ok) << "mapped name still breaks a rule: " << check.mapped;
    EXPECT_EQ(kWindowsMap.MapBack(check.mapped), name);
}

TEST(NamePolicyWindows, RefusesEachForbiddenCharacter)
{
    for (const char* c : {"<", ">", ":", "\"", "|", "?", "*", "\\"}) {
        ExpectRefused(std::string("dir/a") + c + "b", NameProblem::kForbiddenCharacter);
    }
}

TEST(NamePolicyWindows, RefusesControlCharacters)
{
    ExpectRefused("a\x01" "b", NameProblem::kControlCharacter);
    ExpectRefused("dir/tab\there", NameProblem::kControlCharacter);
    ExpectRefused("x\x1f", NameProblem::kControlCharacter);
}

TEST(NamePolicyWindows, RefusesReservedNamesInAnyCaseAndWithAnExtension)
{
    for (const char* name : {"CON", "prn", "Aux", "nul", "COM1", "com9", "LPT1", "lpt9", "con.txt", "dir/NUL.tar.gz",
                             "Com1 .log"}) {
        ExpectRefused(name, NameProblem::kReservedName);
    }
    for (const char* name : {"CONSOLE", "com0", "com10", "lpt", "xcon", "con_x.txt", "a.con"}) {
        EXPECT_TRUE(kWindowsRefuse.Check(name).ok) << name;
    }
}

TEST(NamePolicyWindows, RefusesTrailingDotsAndSpaces)
{
    ExpectRefused("name.", NameProblem::kTrailingDotOrSpace);
    ExpectRefused("name ", NameProblem::kTrailingDotOrSpace);
    ExpectRefused("dir. /file", NameProblem::kTrailingDotOrSpace);
    EXPECT_TRUE(kWindowsRefuse.Check(".hidden").ok);
    EXPECT_TRUE(kWindowsRefuse.Check("a b.c").ok);
}

TEST(NamePolicyWindows, RefusesAPathLongerThanWindowsAllowsEvenWhenMapping)
{
    const std::string fits = std::string(100, 'a') + "/" + std::string(158, 'b');  // 259 + NUL
    EXPECT_TRUE(kWindowsRefuse.Check(fits).ok);
    ExpectRefused(fits + "c", NameProblem::kTooLong);
    EXPECT_EQ(kWindowsMap.Check(fits + "c").reason, NameProblem::kTooLong);
    EXPECT_FALSE(kWindowsMap.Check(fits + "c").ok);

    // Windows counts UTF-16 units: a full-width substitute is one unit.
    EXPECT_TRUE(kWindowsMap.Check(std::string(258, 'a') + "?").ok);

    NamePolicyOptions options;
    options.target = NameTarget::kWindows;
    options.destinationPrefixLength = 10;
    EXPECT_EQ(NamePolicy(options).Check(fits).reason, NameProblem::kTooLong);
}

TEST(NamePolicyWindows, FindsNamesThatDifferOnlyInCase)
{
    const std::vector<NameClash> clashes = kWindowsRefuse.FindClashes({"Readme.md", "src", "README.MD", "readme.md"});
    ASSERT_EQ(clashes.size(), 2u);
    EXPECT_EQ(clashes[0].first, 0u);
    EXPECT_EQ(clashes[0].second, 2u);
    EXPECT_EQ(clashes[1].first, 0u);
    EXPECT_EQ(clashes[1].second, 3u);
    EXPECT_EQ(clashes[1].name, "readme.md");
}

TEST(NamePolicyWindows, FindsNamesThatOnlyClashOnceMapped)
{
    const NameCheck mapped = kWindowsMap.Check("a?");
    ASSERT_TRUE(mapped.ok);
    const std::vector<NameClash> clashes = kWindowsMap.FindClashes({"a?", "b", mapped.mapped});
    ASSERT_EQ(clashes.size(), 1u);
    EXPECT_EQ(clashes[0].first, 0u);
    EXPECT_EQ(clashes[0].second, 2u);
}

TEST(NamePolicyWindows, PortableTargetAppliesTheWindowsRules)
{
    const NamePolicy portable(NameTarget::kPortable, NameAction::kRefuse);
    EXPECT_EQ(portable.Check("a:b").reason, NameProblem::kForbiddenCharacter);
    EXPECT_EQ(portable.Check("aux").reason, NameProblem::kReservedName);
    EXPECT_EQ(portable.FindClashes({"A", "a"}).size(), 1u);
}

TEST(NamePolicyMapping, MapsEveryForbiddenCharacterToItsFullWidthForm)
{
    const std::vector<std::pair<char, std::string>> table = {
        {'<', "\xEF\xBC\x9C"}, {'>', "\xEF\xBC\x9E"}, {':', "\xEF\xBC\x9A"}, {'"', "\xEF\xBC\x82"},
        {'|', "\xEF\xBD\x9C"}, {'?', "\xEF\xBC\x9F"}, {'*', "\xEF\xBC\x8A"}, {'\\', "\xEF\xBC\xBC"},
    };
    for (const auto& [ascii, fullWidth] : table) {
        const NameCheck check = kWindowsMap.Check(std::string("x") + ascii + "y");
        ASSERT_TRUE(check.ok);
        EXPECT_EQ(check.reason, NameProblem::kForbiddenCharacter);
        EXPECT_EQ(check.mapped, "x" + fullWidth + "y");
        ExpectRoundTrip(std::string("dir/x") + ascii + "y");
    }
}

TEST(NamePolicyMapping, RoundTripsControlCharacters)
{
    for (int c = 1; c < 0x20; ++c) {
        ExpectRoundTrip("a" + std::string(1, static_cast<char>(c)) + "b");
    }
    EXPECT_EQ(kWindowsMap.Check("a\tb").mapped, "a\xE2\x90\x89" "b");  // U+2409
}

TEST(NamePolicyMapping, RoundTripsReservedNamesWithAndWithoutExtension)
{
    EXPECT_EQ(kWindowsMap.Check("CON").mapped, "CO\xEF\xBC\xAE");           // COＮ
    EXPECT_EQ(kWindowsMap.Check("lpt1.txt").mapped, "lpt\xEF\xBC\x91.txt");  // lpt１.txt
    for (const char* name : {"CON", "prn", "Aux", "nul", "COM1", "com9", "LPT5", "con.txt", "dir/NUL.tar.gz",
                             "Com1 .log", "aux/CON"}) {
        ExpectRoundTrip(name);
        EXPECT_EQ(kWindowsMap.Check(name).reason, NameProblem::kReservedName) << name;
    }
}

TEST(NamePolicyMapping, RoundTripsTrailingDotsAndSpaces)
{
    EXPECT_EQ(kWindowsMap.Check("a.").mapped, "a\xEF\xBC\x8E");      // U+FF0E
    EXPECT_EQ(kWindowsMap.Check("a ").mapped, "a\xE3\x80\x80");      // U+3000
    for (const char* name : {"a.", "a ", "a. .", "dir./file ", "...", " ", "CON.", "x?. "}) {
        ExpectRoundTrip(name);
    }
}

TEST(NamePolicyMapping, LeavesNamesThatFitAlone)
{
    for (const char* name : {"plain.txt", "dir/sub/file", "caf\xC3\xA9", ".config", "a b"}) {
        const NameCheck check = kWindowsMap.Check(name);
        EXPECT_TRUE(check.ok);
        EXPECT_EQ(check.mapped, name);
        EXPECT_EQ(check.reason, NameProblem::kNone);
        EXPECT_TRUE(check.message.empty());
        EXPECT_EQ(kWindowsMap.MapBack(name), name);
    }
}

TEST(NamePolicyPosix, PassesPosixNamesUnchanged)
{
    const NamePolicy posix(NameTarget::kPosix, NameAction::kRefuse);
    for (const char* name : {"a:b", "CON", "trailing.", "what?", "back\\slash", "tab\there", "x/y*z", "\xEF\xBC\x9F"}) {
        const NameCheck check = posix.Check(name);
        EXPECT_TRUE(check.ok) << name;
        EXPECT_EQ(check.mapped, name);
        EXPECT_EQ(check.reason, NameProblem::kNone);
    }
    EXPECT_TRUE(posix.FindClashes({"A", "a"}).empty());
    EXPECT_EQ(posix.FindClashes({"a", "b", "a"}).size(), 1u);
}

TEST(NamePolicyPosix, RefusesNulAndEmptyComponentsOnEveryTarget)
{
    for (NameTarget target : {NameTarget::kPosix, NameTarget::kWindows, NameTarget::kPortable}) {
        const NamePolicy policy(target, NameAction::kMap);
        EXPECT_EQ(policy.Check(std::string("a\0b", 3)).reason, NameProblem::kNulCharacter);
        EXPECT_FALSE(policy.Check(std::string("a\0b", 3)).ok);
        for (const char* name : {"", "a//b", "/a", "a/", ".", "a/../b"}) {
            EXPECT_EQ(policy.Check(name).reason, NameProblem::kEmpty) << name;
            EXPECT_FALSE(policy.Check(name).ok) << name;
        }
    }
}

}  // namespace
}  // namespace orin::xfer::host
