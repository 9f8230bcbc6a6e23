#include "NameReport.h"

#include <iostream>

#include "ServeReport.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace xferfm::cli {

namespace host = orin::xfer::host;

std::optional<host::ReceiverNameRules> receiverNameRules(const NameOptions& options)
{
    if (options.names == host::NameTarget::kPosix && options.nameAction == NameChoice::kMap) {
        return std::nullopt;  // every name fits; not even the kit's checks run
    }
    host::ReceiverNameRules rules;
    rules.target = options.names;
    rules.action = options.nameAction == NameChoice::kRefuse ? host::NameAction::kRefuse : host::NameAction::kMap;
    rules.mapBack = options.nameAction == NameChoice::kMapBack;
    return rules;
}

std::vector<std::string> nameOptionArguments(const NameOptions& options)
{
    if (!receiverNameRules(options)) {
        return {};
    }
    const char* target = options.names == host::NameTarget::kWindows    ? "windows"
                         : options.names == host::NameTarget::kPortable ? "portable"
                                                                         : "posix";
    const char* action = options.nameAction == NameChoice::kRefuse    ? "refuse"
                         : options.nameAction == NameChoice::kMapBack ? "map-back"
                                                                      : "map";
    return {"--names", target, "--name-action", action};
}

std::string nameOptionsProblem(const NameOptions& options)
{
    if (options.nameAction == NameChoice::kMapBack && options.names != host::NameTarget::kPosix) {
        return "--name-action map-back goes with --names posix only (it restores names a mapping changed)";
    }
    return "";
}

void printMappedNames(const std::vector<std::pair<std::string, std::string>>& mapped, const std::string& prefix,
                      const std::string& landed)
{
    for (size_t index = 0; index < mapped.size(); ++index) {
        if (refusalLineFor(index + 1) == RefusalLine::kRestCounted) {
            std::cout << prefix << "and " << mapped.size() - index << " more names: " << landed
                      << " under a mapped form\n";
            break;
        }
        std::cout << prefix << landed << " '" << host::PrintableText(mapped[index].first) << "' as '"
                  << host::PrintableText(mapped[index].second) << "'\n";
    }
}

void printRefusedNames(const std::vector<host::SkippedEntry>& refused, StderrConsole& console,
                       const std::string& notCopied)
{
    for (size_t index = 0; index < refused.size(); ++index) {
        if (refusalLineFor(index + 1) == RefusalLine::kRestCounted) {
            console.writeLine("xferfm: and " + std::to_string(refused.size() - index) + " more entries " +
                              notCopied + " for their names");
            break;
        }
        console.writeLine(host::PrintableText("xferfm: " + notCopied + ": " + refused[index].reason));
    }
}

}  // namespace xferfm::cli
