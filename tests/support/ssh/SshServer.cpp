#include "SshServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "Wait.h"

namespace orin::xfer::test {
namespace {

constexpr const char* kServer = "/usr/sbin/sshd";

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool writeFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

// A port nobody listens on now: bound to port 0, read, released.
uint16_t freePort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

bool acceptsConnections(uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

std::string currentUser()
{
    const passwd* entry = ::getpwuid(::getuid());
    return entry != nullptr ? entry->pw_name : "root";
}

}  // namespace

SshServer::SshServer()
{
    if (!Installed()) {
        mProblem = std::string(kServer) + " is not installed (scripts/install-deps.sh installs openssh-server)";
        return;
    }
    mRunning = Start();
}

SshServer::~SshServer()
{
    if (mServer) {
        mServer->Signal(SIGTERM);
        mServer->WaitExit(std::chrono::seconds(10));
    }
}

bool SshServer::Installed() const { return ::access(kServer, X_OK) == 0; }

std::string SshServer::Rsh() const { return "ssh -F " + mDir.Join("ssh_config"); }

std::string SshServer::Log() const { return mServer ? mServer->Stderr() : mProblem; }

bool SshServer::Start()
{
    for (const char* key : {"host_key", "client_key", "refused_key"}) {
        ChildProcess keygen("/usr/bin/ssh-keygen", {"-q", "-t", "ed25519", "-N", "", "-C", key, "-f", mDir.Join(key)},
                            mDir.Join(std::string("keygen-") + key));
        if (!keygen.WaitExit(std::chrono::seconds(30)) || keygen.ExitCode() != 0) {
            mProblem = "ssh-keygen failed: " + keygen.Describe();
            return false;
        }
    }
    if (::geteuid() == 0 && ::access("/run/sshd", F_OK) != 0 && ::mkdir("/run/sshd", 0755) != 0 && errno != EEXIST) {
        mProblem = "cannot create /run/sshd, the privilege-separation directory sshd needs";
        return false;
    }

    const uint16_t port = freePort();
    const std::string dir = mDir.Path();
    const std::string portText = std::to_string(port);
    const bool written =
        writeFile(mDir.Join("authorized_keys"), readFile(mDir.Join("client_key.pub"))) &&
        writeFile(mDir.Join("sshd_config"), "Port " + portText +
                                                "\n"
                                                "ListenAddress 127.0.0.1\n"
                                                "HostKey " + dir + "/host_key\n"
                                                "AuthorizedKeysFile " + dir + "/authorized_keys\n"
                                                "PidFile " + dir + "/sshd.pid\n"
                                                "UsePAM no\n"
                                                "StrictModes no\n"
                                                "PasswordAuthentication no\n"
                                                "KbdInteractiveAuthentication no\n"
                                                "PermitRootLogin prohibit-password\n"
                                                "PrintMotd no\n") &&
        writeFile(mDir.Join("known_hosts"), "sshtest-server " + readFile(mDir.Join("host_key.pub")));
    std::string clientConfig;
    for (const auto& [alias, key] : {std::pair{Host(), "client_key"}, std::pair{RefusedHost(), "refused_key"}}) {
        clientConfig += std::string("Host ") + alias +
                        "\n"
                        "  HostName 127.0.0.1\n"
                        "  Port " + portText + "\n"
                        "  User " + currentUser() + "\n"
                        "  IdentityFile " + dir + "/" + key + "\n"
                        "  IdentitiesOnly yes\n"
                        "  HostKeyAlias sshtest-server\n"
                        "  UserKnownHostsFile " + dir + "/known_hosts\n"
                        "  GlobalKnownHostsFile /dev/null\n"
                        "  StrictHostKeyChecking yes\n"
                        "  BatchMode yes\n"
                        "  LogLevel ERROR\n";
    }
    if (!written || !writeFile(mDir.Join("ssh_config"), clientConfig)) {
        mProblem = "cannot write the server's files into " + dir;
        return false;
    }

    mServer = std::make_unique<ChildProcess>(kServer, std::vector<std::string>{"-D", "-e", "-f", mDir.Join("sshd_config")},
                                             mDir.Join("sshd"));
    if (!mServer->Started() ||
        !waitUntil([&] { return acceptsConnections(port) || mServer->WaitExit(std::chrono::milliseconds(0)); },
                   std::chrono::seconds(20)) ||
        mServer->Exited()) {
        mProblem = "sshd did not start: " + mServer->Describe();
        return false;
    }
    return true;
}

}  // namespace orin::xfer::test
