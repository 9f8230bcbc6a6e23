#include "xferfm/host/Sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host {
namespace {

struct DigestContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

struct Descriptor {
    explicit Descriptor(int value) : fd(value) {}
    ~Descriptor()
    {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int fd;
};

constexpr size_t kReadSize = 1024 * 1024;

}  // namespace

std::optional<std::string> Sha256OfFile(const std::string& path, std::string& error)
{
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd < 0) {
        error = SystemErrorText(errno);
        return std::nullopt;
    }
    ::posix_fadvise(file.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    std::unique_ptr<EVP_MD_CTX, DigestContextDeleter> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        error = "cannot start a SHA-256 digest";
        return std::nullopt;
    }
    std::vector<unsigned char> buffer(kReadSize);
    while (true) {
        const ssize_t got = ::read(file.fd, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = SystemErrorText(errno);
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 0x0F];
    }
    return hex;
}

}  // namespace orin::xfer::host
