#include "LinkTestSupport.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "xferfm/host/TcpListener.h"

namespace orin::xfer::host {

bool operator==(const FileListRequest& a, const FileListRequest& b) { return a.protocolVersion == b.protocolVersion; }
bool operator==(const FileListMessage& a, const FileListMessage& b) { return a.json == b.json; }
bool operator==(const NextFileRequest& a, const NextFileRequest& b)
{
    return a.taskId == b.taskId && a.index == b.index && a.name == b.name && a.totalSize == b.totalSize;
}
bool operator==(const FileStart& a, const FileStart& b)
{
    return a.taskId == b.taskId && a.transferId == b.transferId && a.name == b.name &&
           a.isDirectory == b.isDirectory && a.fileSize == b.fileSize && a.totalSize == b.totalSize &&
           a.ackWindow == b.ackWindow;
}
bool operator==(const FileAccept& a, const FileAccept& b) { return a.transferId == b.transferId; }
bool operator==(const FileData& a, const FileData& b) { return a.transferId == b.transferId && a.bytes == b.bytes; }
bool operator==(const DataAck& a, const DataAck& b)
{
    return a.transferId == b.transferId && a.chunksWritten == b.chunksWritten;
}
bool operator==(const TransferError& a, const TransferError& b)
{
    return a.taskId == b.taskId && a.transferId == b.transferId && a.message == b.message;
}
bool operator==(const EndOfList&, const EndOfList&) { return true; }
bool operator==(const EntryRefused& a, const EntryRefused& b) { return a.index == b.index && a.reason == b.reason; }
bool operator==(const Disconnect& a, const Disconnect& b) { return a.completed == b.completed && a.reason == b.reason; }
bool operator==(const OfferOptions& a, const OfferOptions& b) { return a.dryRun == b.dryRun && a.resume == b.resume; }
bool operator==(const EntryLanding& a, const EntryLanding& b)
{
    return a.name == b.name && a.landedAs == b.landedAs && a.resumed == b.resumed;
}
bool operator==(const EntryComplete& a, const EntryComplete& b) { return a.name == b.name; }

std::ostream& operator<<(std::ostream& out, const FileListRequest& m)
{
    return out << "FileListRequest{" << m.protocolVersion << "}";
}
std::ostream& operator<<(std::ostream& out, const FileListMessage& m)
{
    return out << "FileListMessage{" << m.json.size() << " bytes}";
}
std::ostream& operator<<(std::ostream& out, const NextFileRequest& m)
{
    return out << "NextFileRequest{" << m.taskId << ", " << m.index << ", " << m.name << ", " << m.totalSize << "}";
}
std::ostream& operator<<(std::ostream& out, const FileStart& m)
{
    return out << "FileStart{" << m.taskId << ", " << m.transferId << ", " << m.name << ", " << m.isDirectory << ", "
               << m.fileSize << ", " << m.totalSize << ", " << m.ackWindow << "}";
}
std::ostream& operator<<(std::ostream& out, const FileAccept& m) { return out << "FileAccept{" << m.transferId << "}"; }
std::ostream& operator<<(std::ostream& out, const FileData& m)
{
    return out << "FileData{" << m.transferId << ", " << m.bytes.size() << " bytes}";
}
std::ostream& operator<<(std::ostream& out, const DataAck& m)
{
    return out << "DataAck{" << m.transferId << ", " << m.chunksWritten << "}";
}
std::ostream& operator<<(std::ostream& out, const TransferError& m)
{
    return out << "TransferError{" << m.taskId << ", " << m.transferId << ", " << m.message << "}";
}
std::ostream& operator<<(std::ostream& out, const EndOfList&) { return out << "EndOfList{}"; }
std::ostream& operator<<(std::ostream& out, const EntryRefused& m)
{
    return out << "EntryRefused{" << m.index << ", " << m.reason << "}";
}
std::ostream& operator<<(std::ostream& out, const Disconnect& m)
{
    return out << "Disconnect{" << m.completed << ", " << m.reason << "}";
}
std::ostream& operator<<(std::ostream& out, const OfferOptions& m)
{
    return out << "OfferOptions{" << m.dryRun << ", " << m.resume << "}";
}
std::ostream& operator<<(std::ostream& out, const EntryLanding& m)
{
    return out << "EntryLanding{" << m.name << ", " << m.landedAs << ", " << m.resumed << "}";
}
std::ostream& operator<<(std::ostream& out, const EntryComplete& m) { return out << "EntryComplete{" << m.name << "}"; }

}  // namespace orin::xfer::host

namespace orin::xfer::test {

using Clock = std::chrono::steady_clock;

void RecordingHandler::OnMessage(Message message)
{
    if (onMessageHook) {
        onMessageHook(message);
    }
    const std::lock_guard<std::mutex> lock(mMutex);
    mMessages.push_back(std::move(message));
    mThreads.push_back(std::this_thread::get_id());
}

void RecordingHandler::OnTransportClosed(const std::string& reason)
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mClosedCount;
        mReason = reason;
        mThreads.push_back(std::this_thread::get_id());
    }
    if (onClosedHook) {
        onClosedHook(reason);
    }
}

std::vector<Message> RecordingHandler::Messages() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mMessages;
}

size_t RecordingHandler::MessageCount() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mMessages.size();
}

int RecordingHandler::ClosedCount() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mClosedCount;
}

std::string RecordingHandler::CloseReason() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mReason;
}

std::vector<std::thread::id> RecordingHandler::DeliveryThreads() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mThreads;
}

bool RecordingHandler::WaitForMessages(size_t count, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return MessageCount() >= count; }, timeout);
}

bool RecordingHandler::WaitForClose(std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return ClosedCount() > 0; }, timeout);
}

SocketPair ConnectLoopbackPair()
{
    std::string error;
    TcpListener listener(HostPort{"127.0.0.1", 0}, error);
    SocketPair pair;
    if (!listener.Valid()) {
        return pair;
    }
    pair.client = ConnectTcp(HostPort{"127.0.0.1", listener.Port()}, std::chrono::seconds(5), error);
    if (listener.Accept(std::chrono::seconds(5), pair.server, error) != TcpListener::AcceptResult::kAccepted) {
        pair.client.Reset();
    }
    return pair;
}

RawClient::RawClient(uint16_t port)
{
    std::string error;
    mSocket = ConnectTcp(HostPort{"127.0.0.1", port}, std::chrono::seconds(5), error);
}

bool RawClient::SendBytes(const std::vector<uint8_t>& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(mSocket.Fd(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

bool RawClient::SendHello() { return SendBytes(HelloFrame()); }

bool RawClient::SendMessage(const Message& message)
{
    std::vector<uint8_t> frame;
    std::string error;
    return FrameEncoder().Append(message, frame, error) && SendBytes(frame);
}

bool RawClient::ReadUntilClosed(std::vector<uint8_t>& received, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    uint8_t buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd entry{mSocket.Fd(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        const ssize_t got = ::recv(mSocket.Fd(), buffer, sizeof buffer, 0);
        if (got > 0) {
            received.insert(received.end(), buffer, buffer + got);
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return true;  // end of stream or reset: closed either way
    }
}

bool RawClient::ReadMessagesUntil(const std::function<bool(const std::vector<Message>&)>& done,
                                  std::vector<Message>& messages, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    uint8_t buffer[65536];
    while (!done(messages)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd entry{mSocket.Fd(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        const ssize_t got = ::recv(mSocket.Fd(), buffer, sizeof buffer, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0 || !mDecoder.Feed(buffer, static_cast<size_t>(got), messages)) {
            return done(messages);
        }
    }
    return true;
}

void RawClient::FinishSending() { ::shutdown(mSocket.Fd(), SHUT_WR); }

void RawClient::Abort()
{
    linger hardClose{1, 0};
    setsockopt(mSocket.Fd(), SOL_SOCKET, SO_LINGER, &hardClose, sizeof hardClose);
    mSocket.Reset();
}

void AppendU32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

void AppendU64(std::vector<uint8_t>& out, uint64_t value)
{
    for (int shift = 0; shift < 64; shift += 8) {
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

void AppendText(std::vector<uint8_t>& out, const std::string& text)
{
    AppendU32(out, static_cast<uint32_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

std::vector<uint8_t> FrameHeader(uint8_t type, uint32_t payloadLength)
{
    std::vector<uint8_t> out{type};
    AppendU32(out, payloadLength);
    return out;
}

std::vector<uint8_t> HelloFrame(uint32_t version, const char* magic)
{
    std::vector<uint8_t> out = FrameHeader(static_cast<uint8_t>(FrameType::kHello), 8);
    out.insert(out.end(), magic, magic + 4);
    AppendU32(out, version);
    return out;
}

}  // namespace orin::xfer::test
