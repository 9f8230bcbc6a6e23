// Helpers for the TCP link tests: a handler that records what a transport
// delivers, a raw socket client that speaks bytes instead of messages, and
// bounded waiting.
//
// THREADING CONTRACT: RecordingHandler may be called on any thread while
// tests read snapshots from another; RawClient belongs to one test thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "Wait.h"
#include "xferfm/host/FrameCodec.h"
#include "xferfm/host/TcpSocket.h"
#include "xferfm/host/Transport.h"

// Equality and printing of messages, for assertions.
namespace orin::xfer::host {
bool operator==(const FileListRequest& a, const FileListRequest& b);
bool operator==(const FileListMessage& a, const FileListMessage& b);
bool operator==(const NextFileRequest& a, const NextFileRequest& b);
bool operator==(const FileStart& a, const FileStart& b);
bool operator==(const FileAccept& a, const FileAccept& b);
bool operator==(const FileData& a, const FileData& b);
bool operator==(const DataAck& a, const DataAck& b);
bool operator==(const TransferError& a, const TransferError& b);
bool operator==(const EndOfList& a, const EndOfList& b);
bool operator==(const EntryRefused& a, const EntryRefused& b);
bool operator==(const OfferOptions& a, const OfferOptions& b);
bool operator==(const EntryLanding& a, const EntryLanding& b);
bool operator==(const EntryComplete& a, const EntryComplete& b);
bool operator==(const Disconnect& a, const Disconnect& b);
std::ostream& operator<<(std::ostream& out, const FileListRequest& m);
std::ostream& operator<<(std::ostream& out, const FileListMessage& m);
std::ostream& operator<<(std::ostream& out, const NextFileRequest& m);
std::ostream& operator<<(std::ostream& out, const FileStart& m);
std::ostream& operator<<(std::ostream& out, const FileAccept& m);
std::ostream& operator<<(std::ostream& out, const FileData& m);
std::ostream& operator<<(std::ostream& out, const DataAck& m);
std::ostream& operator<<(std::ostream& out, const TransferError& m);
std::ostream& operator<<(std::ostream& out, const EndOfList& m);
std::ostream& operator<<(std::ostream& out, const EntryRefused& m);
std::ostream& operator<<(std::ostream& out, const OfferOptions& m);
std::ostream& operator<<(std::ostream& out, const EntryLanding& m);
std::ostream& operator<<(std::ostream& out, const EntryComplete& m);
std::ostream& operator<<(std::ostream& out, const Disconnect& m);
}  // namespace orin::xfer::host

namespace orin::xfer::test {

using namespace orin::xfer::host;

using orin::xfer::test::waitUntil;

class RecordingHandler : public ITransportHandler {
public:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    // Called inside OnMessage before the message is recorded (may block).
    std::function<void(const Message&)> onMessageHook;
    std::function<void(const std::string&)> onClosedHook;

    std::vector<Message> Messages() const;
    size_t MessageCount() const;
    int ClosedCount() const;
    std::string CloseReason() const;
    std::vector<std::thread::id> DeliveryThreads() const;
    bool WaitForMessages(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    bool WaitForClose(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    mutable std::mutex mMutex;
    std::vector<Message> mMessages;
    std::vector<std::thread::id> mThreads;
    int mClosedCount = 0;
    std::string mReason;
};

// A connected pair of sockets on 127.0.0.1 with an ephemeral port.
struct SocketPair {
    TcpSocket client;
    TcpSocket server;
};
SocketPair ConnectLoopbackPair();

// A client that writes raw bytes to a server and reads its raw reply (or
// the same from the server's side of an accepted connection).
class RawClient {
public:
    explicit RawClient(uint16_t port);
    // Speaks over a socket that is already connected (an accepted one).
    explicit RawClient(TcpSocket connected) : mSocket(std::move(connected)) {}
    bool Connected() const { return mSocket.Valid(); }
    bool SendBytes(const std::vector<uint8_t>& bytes);
    bool SendHello();
    bool SendMessage(const Message& message);
    // Reads until the peer closes or `timeout` passes; true if it closed.
    bool ReadUntilClosed(std::vector<uint8_t>& received, std::chrono::milliseconds timeout);
    // Reads and decodes frames until `done` holds for the messages so far,
    // the peer closes or `timeout` passes.
    bool ReadMessagesUntil(const std::function<bool(const std::vector<Message>&)>& done,
                           std::vector<Message>& messages, std::chrono::milliseconds timeout);
    // Ends our direction of the stream; the peer can still answer.
    void FinishSending();
    // Closes with a reset instead of an orderly end of stream.
    void Abort();
    void Close() { mSocket.Reset(); }

private:
    TcpSocket mSocket;
    FrameDecoder mDecoder;
};

// Little builders for hand-made frames.
std::vector<uint8_t> FrameHeader(uint8_t type, uint32_t payloadLength);
std::vector<uint8_t> HelloFrame(uint32_t version = kWireVersion, const char* magic = "XFFM");
void AppendU32(std::vector<uint8_t>& out, uint32_t value);
void AppendU64(std::vector<uint8_t>& out, uint64_t value);
void AppendText(std::vector<uint8_t>& out, const std::string& text);

}  // namespace orin::xfer::test
