#include "RandomTree.h"

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "TreeCompare.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

namespace {

uint64_t drawSize(std::mt19937_64& rng)
{
    static constexpr uint64_t kChunk = 65536;
    const auto pick = std::uniform_int_distribution<int>(0, 99)(rng);
    if (pick < 15) {
        return 0;
    }
    if (pick < 40) {
        return std::uniform_int_distribution<uint64_t>(1, 200)(rng);
    }
    if (pick < 60) {
        return kChunk - 1 + std::uniform_int_distribution<uint64_t>(0, 2)(rng);
    }
    if (pick < 85) {
        return std::uniform_int_distribution<uint64_t>(201, 20000)(rng);
    }
    return std::uniform_int_distribution<uint64_t>(kChunk + 2, 4 * kChunk + 17)(rng);
}

}  // namespace

RandomTree MakeRandomTree(const std::string& parent, std::mt19937_64& rng, bool multiChunkFile)
{
    RandomTree tree;
    tree.parent = parent;
    std::vector<std::string> places{""};  // "" is the parent itself
    const int directories = std::uniform_int_distribution<int>(0, 3)(rng);
    for (int index = 0; index < directories; ++index) {
        const std::string under = places[std::uniform_int_distribution<size_t>(0, places.size() - 1)(rng)];
        const std::string name = (under.empty() ? "" : under + "/") + "d" + std::to_string(index);
        MakeDirectory(parent + "/" + name);
        tree.directories.push_back(name);
        places.push_back(name);
        if (under.empty()) {
            tree.topEntries.push_back(name);
        }
    }
    const int files = std::uniform_int_distribution<int>(1, 8)(rng);
    for (int index = 0; index < files; ++index) {
        const std::string under = places[std::uniform_int_distribution<size_t>(0, places.size() - 1)(rng)];
        const std::string name = (under.empty() ? "" : under + "/") + "f" + std::to_string(index) + ".bin";
        uint64_t size = drawSize(rng);
        if (multiChunkFile && index == 0) {
            size = std::uniform_int_distribution<uint64_t>(3 * 65536, 6 * 65536)(rng);
        }
        WriteFile(parent + "/" + name,
                  orin::xfer::test::PatternBytes(size, static_cast<uint32_t>(rng())));
        tree.files.push_back(name);
        tree.fileBytes += size;
        tree.largestFile = std::max(tree.largestFile, size);
        if (under.empty()) {
            tree.topEntries.push_back(name);
        }
    }
    return tree;
}

std::string CheckOnlyWholeCopies(const RandomTree& tree, const std::string& destination)
{
    const std::vector<std::string> caches = orin::xfer::test::LeftoverCaches(destination);
    if (!caches.empty()) {
        return "a cache directory was left behind: " + caches.front();
    }
    const std::vector<std::string> incomplete = orin::xfer::test::IncompleteCopies(tree.parent, destination);
    if (!incomplete.empty()) {
        return "a partial, wrong or foreign file under a final name: " + incomplete.front();
    }
    return {};
}

}  // namespace orin::xfer::test
