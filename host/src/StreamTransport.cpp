// How the stream honours the link contract (Transport.h) on any pair of
// descriptors:
// - only the writer thread writes, and it writes with the end in
//   non-blocking mode, waiting in poll() between attempts, so a close or a
//   peer that takes nothing is noticed within kSendWakeInterval;
// - only the reader thread reads, after poll() says there is something,
//   so a read never blocks past a local close;
// - the write side is ended exactly once, by the writer when it stops, or
//   by the reader once the writer has stopped: a pipe's end is closed, and
//   a descriptor must not be closed while another thread may still use it.
#include "xferfm/host/StreamTransport.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "DurationText.h"
#include "StreamDescriptors.h"
#include "ThreadName.h"
#include "xferfm/host/SystemErrorText.h"
#include "WakeEvent.h"

namespace orin::xfer::host {
namespace {

using Clock = std::chrono::steady_clock;

// How often a writer blocked in a full send buffer looks up to check for a
// close or a peer that stopped reading.
constexpr std::chrono::milliseconds kSendWakeInterval{250};
constexpr size_t kReadBufferBytes = 256u << 10;

struct OutFrame {
    std::vector<uint8_t> bytes;
    uint64_t dataBytes = 0;     // counted against the backpressure bound
    uint64_t controlBytes = 0;  // counted against the bound on unread replies
};

using detail::DurationText;
using detail::NameThisThread;

}  // namespace

class StreamTransport::Link {
public:
    Link(StreamEnds ends, StreamTransportOptions options)
        : mEnds(ends),
          mOptions(std::move(options)),
          mEncoder(mOptions.limits),
          mPeer(std::move(ends.peer))
    {
        OutFrame hello;
        mEncoder.AppendHello(hello.bytes);
        mQueue.push_back(std::move(hello));
    }

    ~Link()
    {
        Close();
        {
            const std::lock_guard<std::mutex> join(mJoinMutex);
            if (mReader.joinable()) {
                mReader.join();
            }
        }
        if (mWriter.joinable()) {
            mWriter.join();
        }
        if (mFinSent && mEnds.WriteIsSocket()) {
            mEnds.DrainUntilPeerCloses(mOptions.closeFlushTimeout);
        }
    }

    void Start(ITransportHandler& handler)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStarted || mLocalClosed) {
            return;
        }
        mStarted = true;
        mHandler = &handler;
        // Both threads take the mutex first, so they run only after the
        // thread objects and the reader's id are stored.
        mReader = std::thread([this] { ReaderLoop(); });
        mReaderId = mReader.get_id();
        mWriter = std::thread([this] { WriterLoop(); });
    }

    bool Send(Message message)
    {
        OutFrame frame;
        std::string error;
        if (!mEncoder.Append(message, frame.bytes, error)) {
            FailLink("cannot send to " + mPeer + ": " + error);
            return false;
        }
        (IsDataMessage(message) ? frame.dataBytes : frame.controlBytes) = frame.bytes.size();
        std::unique_lock<std::mutex> lock(mMutex);
        // Control frames never wait here: unbounded, a peer that does not read would grow them without end.
        if (mQueuedControlBytes > 0 && mQueuedControlBytes + frame.controlBytes > mOptions.maxQueuedControlBytes) {
            lock.unlock();
            FailLink("the peer " + mPeer + " does not read what it is sent (" +
                     std::to_string(mOptions.maxQueuedControlBytes) + " bytes of replies wait)");
            return false;
        }
        if (frame.dataBytes > 0) {
            mSpaceFreed.wait(lock, [this] { return !AcceptingLocked() || mQueuedDataBytes < mOptions.maxQueuedDataBytes; });
        }
        if (!AcceptingLocked()) {
            return false;
        }
        mQueuedDataBytes += frame.dataBytes;
        mQueuedControlBytes += frame.controlBytes;
        mPeakQueuedDataBytes = std::max(mPeakQueuedDataBytes, mQueuedDataBytes);
        mQueue.push_back(std::move(frame));
        mWriterWake.notify_one();
        return true;
    }

    void Close()
    {
        std::thread::id readerId;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (!mLocalClosed) {
                mLocalClosed = true;
                mDeliveriesStopped = true;
                if (!mLinkDown && !mFlushAndFinish) {
                    mFlushAndFinish = true;
                    mFlushDeadline = Clock::now() + mOptions.closeFlushTimeout;
                }
            }
            readerId = mReaderId;
            mWriterWake.notify_all();
            mSpaceFreed.notify_all();
        }
        mWake.Signal();
        if (std::this_thread::get_id() != readerId) {
            const std::lock_guard<std::mutex> join(mJoinMutex);
            if (mReader.joinable()) {
                mReader.join();
            }
        }
    }

    const std::string& Peer() const { return mPeer; }
    bool PeerWentAway() const { return mPeerWentAway; }

    uint64_t QueuedDataBytes() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mQueuedDataBytes;
    }

    uint64_t PeakQueuedDataBytes() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mPeakQueuedDataBytes;
    }

private:
    bool AcceptingLocked() const { return !mLocalClosed && !mLinkDown && !mFlushAndFinish; }

    // Marks the link broken: senders fail, the writer stops, and the reader
    // reports `reason` (the first one given) once it has taken what the
    // peer already sent. `peerGone`: the peer ended or broke the stream.
    void FailLink(const std::string& reason, bool peerGone = false)
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (!mLinkDown) {
                mLinkDown = true;
                mFailure = reason;
                mFailurePeerGone = peerGone;
            }
            mWriterWake.notify_all();
            mSpaceFreed.notify_all();
        }
        mWake.Signal();
    }

    // ---- writer thread -------------------------------------------------

    void WriterLoop()
    {
        NameThisThread(mOptions.threadName + "-wr");
        sigset_t pipeSignal;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
        Write();
        bool endStream = false;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mWriterStopped = true;
            endStream = mFinSent || mEndWhenWriterStops;
        }
        if (endStream) {
            mEnds.EndWriteSide();
        }
    }

    void Write()
    {
        auto lastWrite = Clock::now();
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mLinkDown) {
            if (!mQueue.empty()) {
                OutFrame frame = std::move(mQueue.front());
                mQueue.pop_front();
                mQueuedDataBytes -= frame.dataBytes;
                mQueuedControlBytes -= frame.controlBytes;
                mSpaceFreed.notify_all();
                lock.unlock();
                const bool written = WriteAll(frame.bytes);
                lock.lock();
                lastWrite = Clock::now();
                if (!written) {
                    break;
                }
                continue;
            }
            if (mFlushAndFinish) {
                // Everything queued is in the kernel: the peer sees the end
                // of the stream after the last frame.
                mFinSent = true;
                break;
            }
            const auto keepaliveDue = lastWrite + mOptions.keepaliveInterval;
            if (Clock::now() >= keepaliveDue) {
                OutFrame keepalive;
                mEncoder.AppendKeepalive(keepalive.bytes);
                mQueue.push_back(std::move(keepalive));
                continue;
            }
            mWriterWake.wait_until(lock, keepaliveDue);
        }
    }

    // Writes one whole frame. False when the link broke or a close gave up
    // waiting for the peer to take the bytes.
    bool WriteAll(const std::vector<uint8_t>& bytes)
    {
        size_t done = 0;
        auto lastProgress = Clock::now();
        while (done < bytes.size()) {
            const ssize_t sent = mEnds.Write(bytes.data() + done, bytes.size() - done);
            if (sent > 0) {
                done += static_cast<size_t>(sent);
                lastProgress = Clock::now();
                continue;
            }
            const int error = sent < 0 ? errno : EPIPE;
            if (error == EINTR) {
                continue;
            }
            if (error != EAGAIN && error != EWOULDBLOCK) {
                FailLink("connection to " + mPeer + " lost while sending: " + SystemErrorText(error), true);
                return false;
            }
            // The kernel's buffer is full: wait for room, and look up now
            // and then for a close or a peer that stopped taking bytes.
            if (mEnds.WaitWritable(kSendWakeInterval)) {
                continue;
            }
            const auto now = Clock::now();
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                if (mLinkDown) {
                    return false;
                }
                if (mFlushAndFinish && now >= mFlushDeadline) {
                    mLinkDown = true;
                    mFailure = "the peer did not take the last frames within " + DurationText(mOptions.closeFlushTimeout);
                    return false;
                }
            }
            if (now - lastProgress >= mOptions.silenceTimeout) {
                FailLink("the peer " + mPeer + " has taken no data for " + DurationText(mOptions.silenceTimeout));
                return false;
            }
        }
        return true;
    }

    // ---- reader (delivery) thread --------------------------------------

    void ReaderLoop()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
        }
        NameThisThread(mOptions.threadName + "-rd");
        std::vector<uint8_t> buffer(kReadBufferBytes);
        FrameDecoder decoder(mOptions.limits);
        std::vector<Message> messages;
        auto lastReceived = Clock::now();
        std::string reason;
        bool protocolError = false;
        bool peerGone = false;  // what `reason` tells: the peer ended or broke the stream

        // Decodes `size` bytes and delivers what they complete. False when
        // the bytes broke the protocol (reason set) or a local close
        // stopped the deliveries.
        auto take = [&](size_t size) {
            messages.clear();
            const bool valid = decoder.Feed(buffer.data(), size, messages);
            for (Message& message : messages) {
                if (mDeliveriesStopped) {
                    return false;
                }
                mHandler->OnMessage(std::move(message));
            }
            if (!valid) {
                reason = "protocol error from " + mPeer + ": " + decoder.Error();
                protocolError = true;
            }
            return valid;
        };

        for (;;) {
            if (mDeliveriesStopped) {
                return;
            }
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                if (mLinkDown) {
                    reason = mFailure;
                    peerGone = mFailurePeerGone;
                }
            }
            if (!reason.empty()) {
                // The writer broke the link; what the peer already sent may
                // explain why, so deliver it first.
                DeliverWhatIsPending(buffer, take);
                break;
            }
            const auto silent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastReceived);
            const auto left = std::max(std::chrono::milliseconds(0), mOptions.silenceTimeout - silent);
            pollfd watched[2] = {{mEnds.ReadFd(), POLLIN, 0}, {mWake.Fd(), POLLIN, 0}};
            const int ready = ::poll(watched, 2, static_cast<int>(left.count()));
            if (ready < 0 && errno != EINTR) {
                reason = "waiting for " + mPeer + " failed: " + SystemErrorText(errno);
                break;
            }
            if (ready == 0 && Clock::now() - lastReceived >= mOptions.silenceTimeout) {
                // Judged only after a poll found nothing, so time spent in
                // the handler never counts as the peer's silence.
                reason = "nothing heard from " + mPeer + " for " + DurationText(mOptions.silenceTimeout);
                break;
            }
            if (ready <= 0) {
                continue;
            }
            if (watched[1].revents != 0) {
                uint64_t count = 0;
                [[maybe_unused]] const ssize_t drained = ::read(mWake.Fd(), &count, sizeof count);
                continue;
            }
            const ssize_t received = ::read(mEnds.ReadFd(), buffer.data(), buffer.size());
            if (received > 0) {
                if (!take(static_cast<size_t>(received))) {
                    if (!protocolError) {
                        return;  // closed locally while delivering
                    }
                    break;
                }
                // Silence is counted from here: time spent in the handler
                // is not the peer's.
                lastReceived = Clock::now();
                continue;
            }
            if (received == 0) {
                reason = decoder.Finish() ? mPeer + " closed the connection"
                                          : "connection from " + mPeer + " cut short: " + decoder.Error();
                peerGone = true;
                break;
            }
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            reason = "connection to " + mPeer + " lost: " + SystemErrorText(errno);
            peerGone = true;
            break;
        }

        if (protocolError) {
            TellPeerAndFinish(reason);
        } else {
            // Nothing more can be sent on a link the peer ended or lost;
            // ending our side too lets the peer finish its close at once.
            bool writerStopped = false;
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                mEndWhenWriterStops = true;
                writerStopped = mWriterStopped;
            }
            FailLink(reason, peerGone);
            if (writerStopped) {
                mEnds.EndWriteSide();
            }
        }
        mPeerWentAway = peerGone;
        if (!mDeliveriesStopped.exchange(true)) {
            mHandler->OnTransportClosed(reason);
        }
    }

    template <typename Take>
    void DeliverWhatIsPending(std::vector<uint8_t>& buffer, Take& take)
    {
        for (;;) {
            const ssize_t received = mEnds.ReadNow(buffer.data(), buffer.size());
            if (received <= 0 || !take(static_cast<size_t>(received))) {
                return;
            }
        }
    }

    // A peer that broke the protocol hears why before the stream ends.
    void TellPeerAndFinish(const std::string& reason)
    {
        OutFrame goodbye;
        std::string unused;
        mEncoder.Append(Disconnect{false, reason}, goodbye.bytes, unused);
        const std::lock_guard<std::mutex> lock(mMutex);
        if (AcceptingLocked()) {
            mQueue.push_back(std::move(goodbye));
            mFlushAndFinish = true;
            mFlushDeadline = Clock::now() + mOptions.closeFlushTimeout;
        }
        mWriterWake.notify_all();
        mSpaceFreed.notify_all();
    }

    detail::StreamDescriptors mEnds;
    const StreamTransportOptions mOptions;
    const FrameEncoder mEncoder;
    const std::string mPeer;
    WakeEvent mWake;

    mutable std::mutex mMutex;
    std::condition_variable mWriterWake;  // queue, close or failure changed
    std::condition_variable mSpaceFreed;  // data left the queue, or the link ended
    std::deque<OutFrame> mQueue;
    uint64_t mQueuedDataBytes = 0;
    uint64_t mQueuedControlBytes = 0;
    uint64_t mPeakQueuedDataBytes = 0;
    bool mStarted = false;
    bool mLocalClosed = false;
    bool mLinkDown = false;       // broken or ended: nothing more is written
    bool mFlushAndFinish = false;  // write what is queued, then end the stream
    Clock::time_point mFlushDeadline;
    bool mFinSent = false;             // everything queued went out before the end
    bool mEndWhenWriterStops = false;  // the peer ended or lost the link
    bool mWriterStopped = false;
    std::string mFailure;
    bool mFailurePeerGone = false;
    ITransportHandler* mHandler = nullptr;
    std::thread::id mReaderId;

    std::atomic<bool> mDeliveriesStopped{false};
    std::atomic<bool> mPeerWentAway{false};  // set before the one OnTransportClosed  // after Close or the one OnTransportClosed
    std::mutex mJoinMutex;
    std::thread mReader;
    std::thread mWriter;
};

StreamTransport::StreamTransport(StreamEnds ends, StreamTransportOptions options)
    : mLink(std::make_unique<Link>(std::move(ends), std::move(options)))
{
}

StreamTransport::~StreamTransport() = default;

void StreamTransport::Start(ITransportHandler& handler) { mLink->Start(handler); }

bool StreamTransport::Send(Message message) { return mLink->Send(std::move(message)); }

void StreamTransport::Close() { mLink->Close(); }

const std::string& StreamTransport::Peer() const { return mLink->Peer(); }

bool StreamTransport::PeerWentAway() const { return mLink->PeerWentAway(); }

uint64_t StreamTransport::QueuedDataBytes() const { return mLink->QueuedDataBytes(); }

uint64_t StreamTransport::PeakQueuedDataBytes() const { return mLink->PeakQueuedDataBytes(); }

}  // namespace orin::xfer::host
