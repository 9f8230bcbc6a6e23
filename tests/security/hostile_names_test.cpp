// A battery of hostile names (".." everywhere, absolute paths, backslashes
// and drive letters, NUL and control characters, over-long components and
// paths, trailing dots and spaces, look-alikes of "/" and ".", malformed
// UTF-8, paths through symbolic links planted in the destination) fed to
// the receiving side as a sender would send them: in its file list (as one
// name and as a tree of its components) and in an announcement, to a bare
// ReceiverEndpoint and to one behind the RemoteNameGuardTransport, and to
// the guard's checks directly.
//
// The invariant is containment: not one byte is written outside the
// destination, checked against a fingerprinted canary directory beside it
// (and a few absolute targets). Weird names that are legal may land as
// plain names inside the destination.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "CanaryTree.h"
#include "HostTestSupport.h"
#include "HostileNames.h"
#include "HostileSender.h"
#include "SilentEngineLog.h"
#include "TestSupport.h"
#include "TreeCompare.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/RemoteNameGuardTransport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;
namespace {

using namespace std::chrono_literals;
using orin::xfer::test::PathExists;
using orin::xfer::test::TempDir;
using orin::xfer::test::FingerprintTimes;
using orin::xfer::test::TreeFingerprint;

constexpr auto kSessionLimit = 20s;  // a refused or tiny copy ends in milliseconds

enum class Shape { kOneName, kTree, kAnnouncement };

std::vector<std::string> components(const std::string& name)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t slash = name.find('/', start);
        parts.push_back(name.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
        if (slash == std::string::npos) {
            return parts;
        }
        start = slash + 1;
    }
}

std::vector<CraftedEntry> entriesFor(const std::string& name, Shape shape)
{
    if (shape == Shape::kOneName) {
        return {CraftedEntry{"", name, false}};
    }
    if (shape == Shape::kAnnouncement) {
        return {CraftedEntry{"", "plain-entry.txt", false}};
    }
    // Directories for every parent, then the file, as a real sender lists them.
    std::vector<CraftedEntry> entries;
    const auto parts = components(name);
    std::string path;
    for (size_t index = 0; index < parts.size(); ++index) {
        entries.push_back(CraftedEntry{path, parts[index], index + 1 < parts.size()});
        path = path.empty() && index == 0 ? parts[index] : path + "/" + parts[index];
    }
    return entries;
}

std::string realPath(const std::string& path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

struct Tally {
    size_t namesTried = 0;
    size_t namesRefused = 0;    // no session took the name whole (a guarded one may land the entries around it)
    size_t namesContained = 0;  // landed, inside the destination
    size_t sessions = 0;
    size_t sessionsCompleted = 0;
};

class HostileNameBattery : public ::testing::Test {
protected:
    void SetUp() override
    {
        canary = scratch.Join("canary");
        MakeDirectory(canary);
        MakeCanaryTree(canary);
        canaryPrint = TreeFingerprint(canary, FingerprintTimes::kLeftOut);
        passwdPrint = TreeFingerprint("/etc/passwd", FingerprintTimes::kLeftOut);
        destination = scratch.Join("dest");
        names = HostileNames(canary, "dest");
    }

    void resetDestination()
    {
        std::error_code ignored;
        std::filesystem::remove_all(destination, ignored);
        MakeDirectory(destination);
        PlantLinks(destination, canary);
    }

    // Empty when nothing outside the destination changed.
    std::string containmentProblem() const
    {
        if (TreeFingerprint(canary, FingerprintTimes::kLeftOut) != canaryPrint) {
            return "the canary directory beside the destination changed";
        }
        if (TreeFingerprint("/etc/passwd", FingerprintTimes::kLeftOut) != passwdPrint) {
            return "/etc/passwd changed";
        }
        for (const char* outside : {"/tmp/xferfm-escape", "/x", "/etc/x"}) {
            if (PathExists(outside)) {
                return std::string("a file appeared at ") + outside;
            }
        }
        const auto beside = ListTree(scratch.Path());
        for (const auto& entry : beside) {
            if (entry.rfind("canary", 0) != 0 && entry.rfind("dest/", 0) != 0 && entry != "dest/") {
                return "something appeared beside the destination: " + entry;
            }
        }
        return {};
    }

    // One session of the fake sender against a fresh receiver. True when
    // the receiver completed; every final path it reported must resolve
    // inside the destination.
    bool runSession(const std::string& name, Shape shape, bool throughGuard)
    {
        resetDestination();
        RecordingReceiverObserver observer;
        auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
        HostileSender sender(entriesFor(name, shape), shape == Shape::kAnnouncement ? name : "");
        sender.Attach(*senderEnd);
        senderEnd->Start(sender);
        std::unique_ptr<ITransport> link = std::move(receiverEnd);
        // The guard takes refused entries out of the list and the rest is
        // copied: a session counts as completed only when it refused none.
        auto refusedEntries = std::make_shared<std::atomic<size_t>>(0);
        if (throughGuard) {
            link = std::make_unique<RemoteNameGuardTransport>(
                std::move(link), destination, FileListLimits{}, nullptr,
                [refusedEntries](const RefusedEntry& entry) {
                    ++*refusedEntries;
                    if (entry.reason.empty()) {
                        ADD_FAILURE() << Printable(entry.name) << ": an entry refused without a reason";
                    }
                });
        }
        ReceiverOptions options;
        options.destinationDir = destination;
        options.stallTimeout = 5s;
        options.observer = &observer;
        bool completed = false;
        {
            ReceiverEndpoint receiver(std::move(link), options);
            std::string error;
            EXPECT_TRUE(receiver.Start(error)) << error;
            EXPECT_TRUE(receiver.WaitFinished(kSessionLimit)) << Printable(name);
            completed = receiver.Summary().completed && *refusedEntries == 0;
            if (!receiver.Summary().completed && receiver.Summary().error.empty()) {
                ADD_FAILURE() << Printable(name) << ": refused without a reason";
            }
        }
        senderEnd.reset();
        const std::string root = realPath(destination);
        for (const auto& event : observer.Events()) {
            if (event.kind != "completed" && event.kind != "directory") {
                continue;
            }
            const std::string parent = realPath(std::filesystem::path(event.text).parent_path().string());
            if (parent.empty() || (parent != root && parent.rfind(root + "/", 0) != 0)) {
                ADD_FAILURE() << Printable(name) << " landed at " << Printable(event.text) << ", outside " << root;
            }
        }
        ++tally.sessions;
        tally.sessionsCompleted += completed ? 1 : 0;
        return completed;
    }

    void runBattery(const std::vector<Shape>& shapes, bool throughGuard, const char* label)
    {
        SilentEngineLog silent;
        ASSERT_GE(names.size(), 300u);
        for (const auto& name : names) {
            bool landed = false;
            for (const Shape shape : shapes) {
                landed = runSession(name, shape, throughGuard) || landed;
                const std::string escaped = containmentProblem();
                ASSERT_EQ(escaped, "") << "after " << Printable(name) << " (shape " << static_cast<int>(shape)
                                       << ")";
            }
            ++tally.namesTried;
            ++(landed ? tally.namesContained : tally.namesRefused);
        }
        std::printf("hostile names (%s): tried=%zu refused=%zu contained=%zu escaped=0 sessions=%zu completed=%zu\n",
                    label, tally.namesTried, tally.namesRefused, tally.namesContained, tally.sessions,
                    tally.sessionsCompleted);
    }

    TempDir scratch;
    std::string canary;
    std::string destination;
    std::string canaryPrint;
    std::string passwdPrint;
    std::vector<std::string> names;
    Tally tally;
};

TEST_F(HostileNameBattery, AReceiverKeepsEveryNameInsideTheDestination)
{
    runBattery({Shape::kOneName, Shape::kTree, Shape::kAnnouncement}, false, "receiver");
}

TEST_F(HostileNameBattery, AGuardedReceiverKeepsEveryNameInsideTheDestination)
{
    runBattery({Shape::kOneName, Shape::kTree, Shape::kAnnouncement}, true, "guarded receiver");
}

// The containment check itself notices a write through a planted link, so
// the batteries above cannot pass by checking nothing.
TEST_F(HostileNameBattery, TheCanaryNoticesAWriteThroughAPlantedLink)
{
    resetDestination();
    ASSERT_EQ(containmentProblem(), "");
    orin::xfer::test::WriteText(destination + "/evil/new-file", "x");
    EXPECT_NE(containmentProblem(), "");
    ASSERT_EQ(unlink((canary + "/new-file").c_str()), 0);
    ASSERT_EQ(containmentProblem(), "");
    orin::xfer::test::WriteText(destination + "/plain.txt", "overwritten");
    EXPECT_NE(containmentProblem(), "");
}

// The guard's own checks: what it lets through is a plain relative path
// (so joining it under the destination cannot climb out), and no name
// through a link planted in the destination passes the parent check.
TEST_F(HostileNameBattery, TheGuardPassesOnlyNamesThatStayInside)
{
    resetDestination();
    size_t refused = 0;
    for (const auto& name : names) {
        std::string error;
        if (!CheckRemoteName(name, error)) {
            ++refused;
            EXPECT_FALSE(error.empty()) << Printable(name);
            continue;
        }
        EXPECT_NE(name.front(), '/') << Printable(name);
        EXPECT_EQ(name.find('\\'), std::string::npos) << Printable(name);
        for (const auto& part : components(name)) {
            EXPECT_TRUE(!part.empty() && part != "." && part != "..") << Printable(name);
        }
        const bool throughLink = name.rfind("evil/", 0) == 0 || name.rfind("evil-abs/", 0) == 0 ||
                                 name.rfind("evil-rel/", 0) == 0 || name.rfind("dangling/", 0) == 0 ||
                                 name.rfind("deep/link/", 0) == 0;
        const bool parentsOk = CheckDestinationParents(destination, name, error);
        if (throughLink) {
            EXPECT_FALSE(parentsOk) << Printable(name) << " passed through a planted link";
            refused += parentsOk ? 0 : 1;
        }
    }
    std::printf("hostile names (guard): tried=%zu refused=%zu passed=%zu\n", names.size(), refused,
                names.size() - refused);
    EXPECT_EQ(containmentProblem(), "");
}

}  // namespace
}  // namespace orin::xfer::test
