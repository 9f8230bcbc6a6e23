// How the channel keeps the transport contract with a host it cannot see
// into:
// - The host's bytes are decoded on the host's thread (Deliver) but handed
//   to the endpoint on the channel's delivery thread, so the endpoint never
//   runs on a host thread, and a host that loops the bytes of two links
//   into each other never re-enters an endpoint from its own send.
// - Deliver blocks only for data, and only while the inbox already holds
//   data, so control messages (acknowledgements, requests) always get
//   through and two links looped into each other cannot deadlock.
// - The host's callbacks are called with no lock of the channel held but
//   the send lock (which orders frames), so a send callback may deliver to
//   another link; the close callback is called once, outside every lock.
#include "HostCallbackTransport.h"

#include <utility>

#include "HostLog.h"

namespace orin::xfer::host::capi {

HostLinkChannel::HostLinkChannel(const xferfm_link_callbacks& callbacks, uint64_t maxQueuedDataBytes)
    : mCallbacks(callbacks), mMaxQueuedDataBytes(maxQueuedDataBytes)
{
}

HostLinkChannel::~HostLinkChannel()
{
    Close();
    std::lock_guard<std::mutex> join(mJoinMutex);
    if (mThread.joinable()) {
        mThread.detach();  // only when the last owner let go on the delivery thread itself
    }
}

const char* HostLinkChannel::StateName(State state)
{
    switch (state) {
    case State::kIdle: return "idle";
    case State::kOpen: return "open";
    case State::kEnding: return "ending";
    case State::kClosed: return "closed";
    }
    return "?";
}

void HostLinkChannel::SetState(State next, const std::string& why)
{
    if (next == mState) {
        return;
    }
    HOST_LOG_D << "host link " << StateName(mState) << " -> " << StateName(next) << ": " << why;
    mState = next;
    mChanged.notify_all();
}

void HostLinkChannel::Start(ITransportHandler& handler)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState != State::kIdle && !(mState == State::kEnding && mHandler == nullptr)) {
            return;
        }
        mHandler = &handler;
        if (mState == State::kIdle) {
            SetState(State::kOpen, "started");
        }
    }
    {
        std::lock_guard<std::mutex> join(mJoinMutex);
        mThread = std::thread([this] { Run(); });
    }
    std::vector<uint8_t> hello;
    mEncoder.AppendHello(hello);
    std::lock_guard<std::mutex> send(mSendMutex);
    SendBytes(hello);
}

bool HostLinkChannel::Send(const Message& message)
{
    std::vector<uint8_t> frame;
    std::string error;
    if (!mEncoder.Append(message, frame, error)) {
        HOST_LOG_W << "host link: " << MessageName(message) << " not sent: " << error;
        return false;
    }
    // Checked under the send lock, so a Send that comes after Close never
    // reaches the host.
    std::lock_guard<std::mutex> send(mSendMutex);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState != State::kOpen) {
            return false;
        }
    }
    return SendBytes(frame);
}

bool HostLinkChannel::SendBytes(const std::vector<uint8_t>& bytes)
{
    if (mSendBroken) {
        return false;
    }
    if (mCallbacks.send != nullptr && mCallbacks.send(mCallbacks.user, bytes.data(), bytes.size()) == 0) {
        return true;
    }
    mSendBroken = true;
    End("the host's channel refused the bytes");
    return false;
}

void HostLinkChannel::End(const std::string& reason)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState == State::kEnding || mState == State::kClosed) {
            return;
        }
        mEndReason = reason;
        SetState(State::kEnding, reason);
    }
    CloseHostChannel();
}

void HostLinkChannel::CloseHostChannel()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mHostClosed) {
            return;
        }
        mHostClosed = true;
    }
    if (mCallbacks.close != nullptr) {
        mCallbacks.close(mCallbacks.user);
    }
}

void HostLinkChannel::Close()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        SetState(State::kClosed, "closed by this end");
        mInbox.clear();
        mQueuedDataBytes = 0;
    }
    CloseHostChannel();
    JoinUnlessSelf();
}

void HostLinkChannel::JoinUnlessSelf()
{
    std::lock_guard<std::mutex> join(mJoinMutex);
    if (mThread.joinable() && mThread.get_id() != std::this_thread::get_id()) {
        mThread.join();
    }
}

void HostLinkChannel::Run()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (true) {
        mChanged.wait(lock, [this] { return mState == State::kClosed || !mInbox.empty() || mState == State::kEnding; });
        if (mState == State::kClosed) {
            return;
        }
        ITransportHandler* handler = mHandler;
        if (mInbox.empty()) {
            const std::string reason = mEndReason;
            SetState(State::kClosed, "end delivered");
            lock.unlock();
            handler->OnTransportClosed(reason);
            return;
        }
        Message message = std::move(mInbox.front());
        mInbox.pop_front();
        mQueuedDataBytes -= DataBytesOf(message);
        mChanged.notify_all();
        lock.unlock();
        handler->OnMessage(std::move(message));
        lock.lock();
    }
}

int HostLinkChannel::Deliver(const uint8_t* bytes, size_t size, std::string& error)
{
    std::lock_guard<std::mutex> decode(mDecodeMutex);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState == State::kEnding || mState == State::kClosed) {
            error = "the link is closed";
            return XFERFM_ERR_CLOSED;
        }
    }
    std::vector<Message> messages;
    const bool good = mDecoder.Feed(bytes, size, messages);
    std::unique_lock<std::mutex> lock(mMutex);
    for (Message& message : messages) {
        if (IsDataMessage(message)) {
            mChanged.wait(lock, [this] {
                return mState == State::kEnding || mState == State::kClosed || mQueuedDataBytes == 0 ||
                       mQueuedDataBytes < mMaxQueuedDataBytes;
            });
        }
        if (mState == State::kEnding || mState == State::kClosed) {
            error = "the link is closed";
            return XFERFM_ERR_CLOSED;
        }
        mQueuedDataBytes += DataBytesOf(message);
        mInbox.push_back(std::move(message));
        mChanged.notify_all();
    }
    lock.unlock();
    if (!good) {
        error = "bad frames from the peer: " + mDecoder.Error();
        std::vector<uint8_t> goodbye;
        std::string unused;
        if (mEncoder.Append(Disconnect{false, error}, goodbye, unused)) {
            std::lock_guard<std::mutex> send(mSendMutex);
            SendBytes(goodbye);
        }
        End(error);
        return XFERFM_ERR_PROTOCOL;
    }
    return XFERFM_OK;
}

int HostLinkChannel::DeliverEnd(const std::string& reason)
{
    std::lock_guard<std::mutex> decode(mDecodeMutex);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState == State::kEnding || mState == State::kClosed) {
            return XFERFM_ERR_CLOSED;
        }
    }
    std::string why = reason.empty() ? "the peer closed the link" : reason;
    if (!mDecoder.Finish()) {
        why += " (" + mDecoder.Error() + ")";
    }
    End(why);
    return XFERFM_OK;
}

}  // namespace orin::xfer::host::capi
