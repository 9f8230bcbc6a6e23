#include "RemoteCommand.h"

#include "ToolError.h"

namespace xferfm::cli {

std::vector<std::string> splitShellWords(const std::string& command)
{
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;  // a word has started, even an empty '' one
    enum class Quote { kNone, kSingle, kDouble } quote = Quote::kNone;
    for (size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        switch (quote) {
        case Quote::kSingle:
            if (c == '\'') {
                quote = Quote::kNone;
            } else {
                word += c;
            }
            break;
        case Quote::kDouble:
            if (c == '"') {
                quote = Quote::kNone;
            } else if (c == '\\' && i + 1 < command.size() &&
                       std::string("\"\\$`").find(command[i + 1]) != std::string::npos) {
                word += command[++i];
            } else {
                word += c;
            }
            break;
        case Quote::kNone:
            if (c == ' ' || c == '\t' || c == '\n') {
                if (inWord) {
                    words.push_back(word);
                    word.clear();
                    inWord = false;
                }
            } else if (c == '\'') {
                quote = Quote::kSingle;
                inWord = true;
            } else if (c == '"') {
                quote = Quote::kDouble;
                inWord = true;
            } else if (c == '\\') {
                if (i + 1 == command.size()) {
                    throw ToolError(ExitCode::kUsage, "--rsh '" + command + "': it ends in a backslash");
                }
                word += command[++i];
                inWord = true;
            } else {
                word += c;
                inWord = true;
            }
            break;
        }
    }
    if (quote != Quote::kNone) {
        throw ToolError(ExitCode::kUsage, "--rsh '" + command + "': a quote is not closed");
    }
    if (inWord) {
        words.push_back(word);
    }
    if (words.empty()) {
        throw ToolError(ExitCode::kUsage, "--rsh needs a command (ssh, say)");
    }
    return words;
}

std::string shellQuote(const std::string& word)
{
    static const std::string kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789@%+=:,./-_";
    if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) {
        return word;
    }
    std::string quoted = "'";
    for (const char c : word) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

namespace {

// A path quoted whole, except a leading "~/" (or a lone "~"), which stays
// bare so that the remote shell still reads it as the login directory.
std::string quoteRemotePath(const std::string& path)
{
    if (path == "~") {
        return path;
    }
    if (path.compare(0, 2, "~/") == 0) {
        return path.size() == 2 ? path : "~/" + shellQuote(path.substr(2));
    }
    return shellQuote(path);
}

}  // namespace

std::string remoteCommandLine(const RemoteInvocation& invocation)
{
    std::string line = shellQuote(invocation.xferfmPath);
    line += invocation.role == RemoteRole::kReceive ? " serve --stdio" : " send --stdio";
    for (const std::string& option : invocation.options) {
        line += " " + shellQuote(option);
    }
    line += " --";
    for (const std::string& path : invocation.paths) {
        line += " " + quoteRemotePath(path);
    }
    return line;
}

std::vector<std::string> remoteShellArgv(const RemoteInvocation& invocation)
{
    std::vector<std::string> argv = invocation.rshWords;
    argv.push_back(invocation.target.login());
    argv.push_back(remoteCommandLine(invocation));
    return argv;
}

}  // namespace xferfm::cli
