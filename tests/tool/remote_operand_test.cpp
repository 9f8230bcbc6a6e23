// Operands of `xferfm copy` that name another machine: [USER@]HOST:PATH,
// told apart from local names, and the direction a copy takes from them.
#include <gtest/gtest.h>

#include "RemoteOperand.h"
#include "ToolError.h"

namespace xferfm::cli {
namespace {

RemoteTarget remote(const std::string& operand)
{
    const std::optional<RemoteTarget> target = parseRemoteOperand(operand);
    EXPECT_TRUE(target.has_value()) << operand << " should be remote";
    return target.value_or(RemoteTarget{});
}

ExitCode codeOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const ToolError& error) {
        return error.code();
    }
    return ExitCode::kOk;
}

TEST(RemoteOperand, AColonBeforeAnySlashNamesAHostAndItsPath)
{
    const RemoteTarget target = remote("backup.example:photos/2026");

    EXPECT_EQ(target.user, "");
    EXPECT_EQ(target.host, "backup.example");
    EXPECT_EQ(target.path, "photos/2026");
    EXPECT_EQ(target.login(), "backup.example");
}

TEST(RemoteOperand, AUserBeforeTheHostIsKeptForTheLogin)
{
    const RemoteTarget target = remote("ann@backup:/srv/in");

    EXPECT_EQ(target.user, "ann");
    EXPECT_EQ(target.host, "backup");
    EXPECT_EQ(target.path, "/srv/in");
    EXPECT_EQ(target.login(), "ann@backup");
}

TEST(RemoteOperand, AnEmptyPathIsTheLoginDirectory)
{
    EXPECT_EQ(remote("backup:").path, "");
}

TEST(RemoteOperand, ABracketedIpv6AddressIsOneHost)
{
    const RemoteTarget target = remote("ann@[::1]:in/box");

    EXPECT_EQ(target.user, "ann");
    EXPECT_EQ(target.host, "::1");
    EXPECT_EQ(target.path, "in/box");
    EXPECT_EQ(target.hostLabel(), "[::1]");
}

TEST(RemoteOperand, NamesWithoutAColonBeforeTheFirstSlashStayLocal)
{
    for (const char* local : {"photos", "./a:b", "/srv/a:b", "dir/x:y", "ann@home", "[draft]", "[a]/b:c", ""}) {
        EXPECT_FALSE(parseRemoteOperand(local).has_value()) << local;
    }
}

TEST(RemoteOperand, AnAtAfterTheColonBelongsToThePath)
{
    const RemoteTarget target = remote("host:mail@2026");

    EXPECT_EQ(target.user, "");
    EXPECT_EQ(target.path, "mail@2026");
}

TEST(RemoteOperand, AMissingHostOrAnOptionLikeHostIsAUsageError)
{
    for (const char* bad : {":photos", "ann@:photos", "-oProxyCommand=x:y", "-x@host:y", "@host:y"}) {
        EXPECT_EQ(codeOf([bad] { parseRemoteOperand(bad); }), ExitCode::kUsage) << bad;
    }
}

TEST(CopyOperands, LocalSourcesAndARemoteDestPush)
{
    const CopyEnds ends = sortCopyOperands({"a", "b/c"}, "ann@backup:in");

    EXPECT_EQ(ends.direction, CopyDirection::kPush);
    EXPECT_EQ(ends.remote.login(), "ann@backup");
    EXPECT_EQ(ends.sources, (std::vector<std::string>{"a", "b/c"}));
    EXPECT_EQ(ends.destination, "in");
}

TEST(CopyOperands, SourcesOnOneHostAndALocalDestPull)
{
    const CopyEnds ends = sortCopyOperands({"backup:a", "backup:"}, "here");

    EXPECT_EQ(ends.direction, CopyDirection::kPull);
    EXPECT_EQ(ends.remote.host, "backup");
    EXPECT_EQ(ends.sources, (std::vector<std::string>{"a", "."}));
    EXPECT_EQ(ends.destination, "here");
}

TEST(CopyOperands, APushToAnEmptyRemotePathLandsInTheLoginDirectory)
{
    EXPECT_EQ(sortCopyOperands({"a"}, "backup:").destination, ".");
}

TEST(CopyOperands, EverythingLocalIsTheLocalCopy)
{
    const CopyEnds ends = sortCopyOperands({"a", "./x:y"}, "dest");

    EXPECT_EQ(ends.direction, CopyDirection::kLocal);
    EXPECT_EQ(ends.sources, (std::vector<std::string>{"a", "./x:y"}));
    EXPECT_EQ(ends.destination, "dest");
}

TEST(CopyOperands, RemoteToRemoteIsRefused)
{
    try {
        sortCopyOperands({"one:a"}, "two:b");
        FAIL() << "remote to remote was accepted";
    } catch (const ToolError& error) {
        EXPECT_EQ(error.code(), ExitCode::kUsage);
        EXPECT_NE(std::string(error.what()).find("from one remote host to another"), std::string::npos)
            << error.what();
    }
}

TEST(CopyOperands, SourcesOnTwoHostsOrMixedWithLocalOnesAreRefused)
{
    EXPECT_EQ(codeOf([] { sortCopyOperands({"one:a", "two:b"}, "here"); }), ExitCode::kUsage);
    EXPECT_EQ(codeOf([] { sortCopyOperands({"ann@one:a", "bob@one:b"}, "here"); }), ExitCode::kUsage);
    EXPECT_EQ(codeOf([] { sortCopyOperands({"one:a", "local"}, "here"); }), ExitCode::kUsage);
}

}  // namespace
}  // namespace xferfm::cli
