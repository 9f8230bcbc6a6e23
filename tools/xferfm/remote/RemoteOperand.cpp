#include "RemoteOperand.h"

#include "ToolError.h"

namespace xferfm::cli {

std::string RemoteTarget::login() const { return user.empty() ? host : user + "@" + host; }

std::string RemoteTarget::hostLabel() const
{
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

std::optional<RemoteTarget> parseRemoteOperand(const std::string& operand)
{
    // Only what comes before the first slash can name a host.
    const std::string head = operand.substr(0, operand.find('/'));
    const size_t colon = head.find(':');
    const size_t at = head.find('@');
    const size_t bracket = head.find('[');
    // USER@ comes before the host's colon or bracket; an '@' after them is
    // part of the path.
    const size_t hostStart = at != std::string::npos && at < colon && at < bracket ? at + 1 : 0;

    RemoteTarget target;
    if (head.compare(hostStart, 1, "[") == 0) {
        const size_t close = head.find("]:", hostStart);
        if (close == std::string::npos) {
            return std::nullopt;  // "[name]" or "[a]/b:c": a local name with brackets
        }
        target.host = operand.substr(hostStart + 1, close - hostStart - 1);
        target.path = operand.substr(close + 2);
    } else {
        if (colon == std::string::npos) {
            return std::nullopt;  // no colon before the first slash: `./a:b` stays local
        }
        target.host = operand.substr(hostStart, colon - hostStart);
        target.path = operand.substr(colon + 1);
    }
    if (hostStart > 0) {
        target.user = operand.substr(0, hostStart - 1);
    }
    if (target.host.empty()) {
        throw ToolError(ExitCode::kUsage, "'" + operand + "': no host before the ':' (write ./" + operand +
                                              " for a local name with a colon)");
    }
    if (target.host.front() == '-' || (!target.user.empty() && target.user.front() == '-')) {
        throw ToolError(ExitCode::kUsage, "'" + operand + "': a host or user may not start with '-'");
    }
    if (hostStart > 0 && target.user.empty()) {
        throw ToolError(ExitCode::kUsage, "'" + operand + "': no user before the '@'");
    }
    return target;
}

CopyEnds sortCopyOperands(const std::vector<std::string>& sources, const std::string& destination)
{
    CopyEnds ends;
    const std::optional<RemoteTarget> remoteDestination = parseRemoteOperand(destination);
    std::optional<RemoteTarget> sourceHost;
    std::vector<std::string> remotePaths;
    bool anyLocal = false;
    for (const std::string& source : sources) {
        const std::optional<RemoteTarget> remote = parseRemoteOperand(source);
        if (!remote) {
            anyLocal = true;
            continue;
        }
        if (sourceHost && !sourceHost->sameHost(*remote)) {
            throw ToolError(ExitCode::kUsage, "every remote SOURCE must be on one host: '" + sourceHost->login() +
                                                  "' and '" + remote->login() + "' differ");
        }
        sourceHost = *remote;
        remotePaths.push_back(remote->path.empty() ? "." : remote->path);
    }
    if (sourceHost && remoteDestination) {
        throw ToolError(ExitCode::kUsage, "cannot copy from one remote host to another ('" + sourceHost->login() +
                                              "' to '" + remoteDestination->login() +
                                              "'); copy to this machine first, or run xferfm on one of them");
    }
    if (sourceHost && anyLocal) {
        throw ToolError(ExitCode::kUsage,
                        "SOURCEs must all be local or all on one remote host, not both (DEST is local: pull "
                        "the remote ones, then copy the local ones)");
    }
    if (sourceHost) {
        ends.direction = CopyDirection::kPull;
        ends.remote = *sourceHost;
        ends.sources = std::move(remotePaths);
        ends.destination = destination;
    } else if (remoteDestination) {
        ends.direction = CopyDirection::kPush;
        ends.remote = *remoteDestination;
        ends.sources = sources;
        ends.destination = remoteDestination->path.empty() ? "." : remoteDestination->path;
    } else {
        ends.sources = sources;
        ends.destination = destination;
    }
    return ends;
}

}  // namespace xferfm::cli
