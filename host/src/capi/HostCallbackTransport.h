// A transport over a byte channel the host owns: outgoing messages become
// frames (FrameCodec.h) handed to the host's send callback; the host gives
// the peer's bytes back through Deliver. The C interface's custom links
// (xferfm_link_custom) are made of it.
//
// The state both sides share (HostLinkChannel) lives as long as the longer
// of the link handle and the transport the endpoint owns, so the host may
// go on delivering after the endpoint is gone (and hears "closed").
//
// THREADING CONTRACT: as ITransport (Transport.h). Messages go to the
// handler on a delivery thread of the channel's own, in order, one at a
// time, then one OnTransportClosed once the host has ended the channel
// (DeliverEnd), a send has failed or the bytes were bad. Deliver and
// DeliverEnd may be called from any thread but one at a time; Deliver
// blocks while `maxQueuedDataBytes` of data wait for the handler (control
// messages never wait). The host's send callback is called under the
// channel's send lock, one call at a time, in frame order.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "xferfm/host/FrameCodec.h"
#include "xferfm/host/Transport.h"
#include "xferfm/xferfm.h"

namespace orin::xfer::host::capi {

class HostLinkChannel {
public:
    explicit HostLinkChannel(const xferfm_link_callbacks& callbacks, uint64_t maxQueuedDataBytes = 8u << 20);
    ~HostLinkChannel();
    HostLinkChannel(const HostLinkChannel&) = delete;
    HostLinkChannel& operator=(const HostLinkChannel&) = delete;

    // Transport side.
    void Start(ITransportHandler& handler);
    bool Send(const Message& message);
    void Close();

    // Host side: an xferfm_status.
    int Deliver(const uint8_t* bytes, size_t size, std::string& error);
    int DeliverEnd(const std::string& reason);

private:
    // kIdle: not started (deliveries are queued); kOpen: delivering;
    // kEnding: no more input, the queue drains, then OnTransportClosed;
    // kClosed: the handler is never called again.
    enum class State { kIdle, kOpen, kEnding, kClosed };
    static const char* StateName(State state);
    void SetState(State next, const std::string& why);  // mMutex held
    void Run();
    void End(const std::string& reason);                // no more input; mMutex not held
    void CloseHostChannel();
    void JoinUnlessSelf();
    bool SendBytes(const std::vector<uint8_t>& bytes);  // mSendMutex held

    const xferfm_link_callbacks mCallbacks;
    const uint64_t mMaxQueuedDataBytes;
    const FrameEncoder mEncoder;

    std::mutex mSendMutex;  // one host send at a time, frames in order
    bool mSendBroken = false;

    std::mutex mDecodeMutex;  // one Deliver at a time
    FrameDecoder mDecoder;

    std::mutex mMutex;
    std::condition_variable mChanged;
    State mState = State::kIdle;
    ITransportHandler* mHandler = nullptr;
    std::deque<Message> mInbox;
    uint64_t mQueuedDataBytes = 0;
    std::string mEndReason;
    bool mHostClosed = false;

    std::mutex mJoinMutex;  // guards the delivery thread object
    std::thread mThread;
};

// The endpoint's end: owns nothing but a share of the channel.
class HostCallbackTransport final : public ITransport {
public:
    explicit HostCallbackTransport(std::shared_ptr<HostLinkChannel> channel) : mChannel(std::move(channel)) {}
    ~HostCallbackTransport() override { mChannel->Close(); }

    void Start(ITransportHandler& handler) override { mChannel->Start(handler); }
    bool Send(Message message) override { return mChannel->Send(message); }
    void Close() override { mChannel->Close(); }

private:
    std::shared_ptr<HostLinkChannel> mChannel;
};

}  // namespace orin::xfer::host::capi
