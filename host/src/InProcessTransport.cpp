#include "xferfm/host/InProcessTransport.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace orin::xfer::host {

namespace {

// One direction of the link: what waits to be delivered to one end.
struct Inbox {
    std::string name;
    std::deque<Message> queue;
    uint64_t dataBytes = 0;
    uint64_t peakDataBytes = 0;
    ITransportHandler* handler = nullptr;
    bool closed = false;          // this end closed: deliver nothing more
    bool peerClosed = false;      // the other end closed: tell the handler once drained
    bool closeDelivered = false;
    std::thread thread;           // the delivery thread, taken by whoever stops it
    std::thread::id deliveryThreadId;
    bool inHandler = false;       // the handler is running now (on either thread)
    std::thread::id inlineThread; // the sender delivering a data message inline, if any
    bool deliveryWaiting = false; // the delivery thread sleeps: wake it on arrival
    int sendersWaiting = 0;       // senders held back: wake them on drain
    std::condition_variable handlerReturned;
    std::condition_variable arrived;  // something to deliver, or closed
    std::condition_variable drained;  // data bytes left the queue, or closed
};

}  // namespace

struct InProcessTransport::Link {
    std::mutex mutex;
    uint64_t maxQueuedDataBytes = 0;
    bool inlineData = false;
    Inbox ends[2];
};

namespace {

void deliverLoop(const std::shared_ptr<InProcessTransport::Link>& link, int side)
{
    Inbox& inbox = link->ends[side];
    pthread_setname_np(pthread_self(), inbox.name.substr(0, 15).c_str());
    std::unique_lock<std::mutex> lock(link->mutex);
    while (true) {
        // Wake-ups cost a system call per message, so senders only signal
        // a delivery thread that really sleeps (and vice versa).
        // An inline delivery owns the handler until it returns.
        while (!(inbox.closed || ((!inbox.queue.empty() || (inbox.peerClosed && !inbox.closeDelivered)) &&
                                  !inbox.inHandler))) {
            inbox.deliveryWaiting = true;
            inbox.arrived.wait(lock);
            inbox.deliveryWaiting = false;
        }
        if (inbox.closed) {
            return;
        }
        ITransportHandler* handler = inbox.handler;
        if (!inbox.queue.empty()) {
            Message message = std::move(inbox.queue.front());
            inbox.queue.pop_front();
            inbox.dataBytes -= DataBytesOf(message);
            if (inbox.sendersWaiting > 0) {
                inbox.drained.notify_all();
            }
            inbox.inHandler = true;
            lock.unlock();
            handler->OnMessage(std::move(message));
            lock.lock();
            inbox.inHandler = false;
            inbox.handlerReturned.notify_all();
            continue;
        }
        inbox.closeDelivered = true;
        inbox.inHandler = true;
        lock.unlock();
        handler->OnTransportClosed("the peer closed the link");
        lock.lock();
        inbox.inHandler = false;
        inbox.handlerReturned.notify_all();
    }
}

}  // namespace

std::pair<std::unique_ptr<InProcessTransport>, std::unique_ptr<InProcessTransport>> InProcessTransport::CreatePair(
    InProcessTransportOptions options)
{
    auto link = std::make_shared<Link>();
    link->maxQueuedDataBytes = options.maxQueuedDataBytes;
    link->inlineData = options.inlineData;
    link->ends[0].name = options.firstEndName;
    link->ends[1].name = options.secondEndName;
    return {std::unique_ptr<InProcessTransport>(new InProcessTransport(link, 0)),
            std::unique_ptr<InProcessTransport>(new InProcessTransport(link, 1))};
}

InProcessTransport::InProcessTransport(std::shared_ptr<Link> link, int side) : mLink(std::move(link)), mSide(side) {}

InProcessTransport::~InProcessTransport()
{
    Close();
}

void InProcessTransport::Start(ITransportHandler& handler)
{
    std::lock_guard<std::mutex> lock(mLink->mutex);
    Inbox& inbox = mLink->ends[mSide];
    if (inbox.handler != nullptr || inbox.closed) {
        return;
    }
    inbox.handler = &handler;
    inbox.thread = std::thread([link = mLink, side = mSide] { deliverLoop(link, side); });
    inbox.deliveryThreadId = inbox.thread.get_id();
}

// Hands one data message to an idle peer on this thread; false (with the
// lock still held) when the peer is busy or has no handler yet, so the
// caller queues it instead. Inline only when nothing sent before waits and
// no handler runs, so order and one-at-a-time delivery hold.
template <typename Deliver>
bool InProcessTransport::deliverInline(std::unique_lock<std::mutex>& lock, Deliver&& deliver)
{
    Inbox& peer = mLink->ends[1 - mSide];
    if (!mLink->inlineData || peer.handler == nullptr || !peer.queue.empty() || peer.inHandler) {
        return false;
    }
    peer.inHandler = true;
    peer.inlineThread = std::this_thread::get_id();
    ITransportHandler* handler = peer.handler;
    lock.unlock();
    deliver(*handler);
    lock.lock();
    peer.inHandler = false;
    peer.inlineThread = std::thread::id();
    peer.handlerReturned.notify_all();
    if (peer.deliveryWaiting && !peer.queue.empty()) {
        peer.arrived.notify_one();  // what was queued meanwhile
    }
    return true;
}

bool InProcessTransport::SendData(uint32_t transferId, const uint8_t* bytes, size_t size)
{
    {
        std::unique_lock<std::mutex> lock(mLink->mutex);
        if (mLink->ends[mSide].closed || mLink->ends[1 - mSide].closed) {
            return false;
        }
        if (deliverInline(lock, [&](ITransportHandler& handler) { handler.OnData(transferId, bytes, size); })) {
            return true;
        }
    }
    return ITransport::SendData(transferId, bytes, size);  // a copy, queued
}

bool InProcessTransport::Send(Message message)
{
    Inbox& own = mLink->ends[mSide];
    Inbox& peer = mLink->ends[1 - mSide];
    const uint64_t bytes = DataBytesOf(message);
    std::unique_lock<std::mutex> lock(mLink->mutex);
    if (own.closed || peer.closed) {
        return false;
    }
    if (IsDataMessage(message) &&
        deliverInline(lock, [&](ITransportHandler& handler) { handler.OnMessage(std::move(message)); })) {
        return true;
    }
    if (IsDataMessage(message)) {
        while (!(own.closed || peer.closed || peer.dataBytes == 0 ||
                 peer.dataBytes + bytes <= mLink->maxQueuedDataBytes)) {
            ++peer.sendersWaiting;
            peer.drained.wait(lock);
            --peer.sendersWaiting;
        }
    }
    if (own.closed || peer.closed) {
        return false;
    }
    peer.queue.push_back(std::move(message));
    peer.dataBytes += bytes;
    if (peer.dataBytes > peer.peakDataBytes) {
        peer.peakDataBytes = peer.dataBytes;
    }
    if (peer.deliveryWaiting) {
        peer.arrived.notify_one();
    }
    return true;
}

void InProcessTransport::Close()
{
    Inbox& own = mLink->ends[mSide];
    Inbox& peer = mLink->ends[1 - mSide];
    std::deque<Message> undelivered;
    std::thread delivery;
    bool onDeliveryThread = false;
    bool insideHandler = false;
    {
        std::unique_lock<std::mutex> lock(mLink->mutex);
        onDeliveryThread = own.deliveryThreadId == std::this_thread::get_id();
        insideHandler = onDeliveryThread || own.inlineThread == std::this_thread::get_id();
        own.closed = true;
        peer.peerClosed = true;
        undelivered.swap(own.queue);
        own.dataBytes = 0;
        delivery = std::move(own.thread);
        own.arrived.notify_all();
        own.drained.notify_all();
        peer.arrived.notify_all();
        peer.drained.notify_all();
        // A second Close from another thread still waits for a handler
        // that a first Close (from inside it) left running.
        if (!insideHandler) {
            own.handlerReturned.wait(lock, [&] { return !own.inHandler; });
        }
    }
    undelivered.clear();
    if (!delivery.joinable()) {
        return;
    }
    if (onDeliveryThread) {
        delivery.detach();  // closing from inside the handler: the thread ends after it
    } else {
        delivery.join();
    }
}

uint64_t InProcessTransport::QueuedDataBytes() const
{
    std::lock_guard<std::mutex> lock(mLink->mutex);
    return mLink->ends[mSide].dataBytes;
}

uint64_t InProcessTransport::PeakQueuedDataBytes() const
{
    std::lock_guard<std::mutex> lock(mLink->mutex);
    return mLink->ends[mSide].peakDataBytes;
}

}  // namespace orin::xfer::host
