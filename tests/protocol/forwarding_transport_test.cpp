// ForwardingTransport, the base of transport wrappers: what a wrapper does
// not override passes through unchanged, both ways; what it overrides is
// all it has to write, and it sees data as ordinary messages.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "LinkTestSupport.h"
#include "xferfm/host/ForwardingTransport.h"
#include "xferfm/host/InProcessTransport.h"

namespace orin::xfer::test {
namespace {

// Overrides nothing.
class PlainWrapper final : public ForwardingTransport {
public:
    using ForwardingTransport::ForwardingTransport;
};

// Renames outgoing errors and counts every outgoing message; forwards the
// rest as the base does.
class RenamingWrapper final : public ForwardingTransport {
public:
    using ForwardingTransport::ForwardingTransport;
    ~RenamingWrapper() override { ReleaseInner(); }

    bool Send(Message message) override
    {
        ++sent;
        if (auto* error = std::get_if<TransferError>(&message)) {
            error->message = "renamed: " + error->message;
        }
        return ForwardingTransport::Send(std::move(message));
    }

    std::atomic<int> sent{0};
};

struct WrappedLink {
    template <typename Wrapper>
    static WrappedLink Make(std::unique_ptr<Wrapper>& wrapper)
    {
        WrappedLink link;
        auto ends = InProcessTransport::CreatePair();
        link.peer = std::move(ends.first);
        wrapper = std::make_unique<Wrapper>(std::move(ends.second));
        return link;
    }
    std::unique_ptr<InProcessTransport> peer;
};

TEST(ForwardingTransportTest, AWrapperThatOverridesNothingPassesEverythingThroughBothWays)
{
    RecordingHandler peerHandler;  // outlive the transports that call them
    RecordingHandler wrappedHandler;
    std::unique_ptr<PlainWrapper> wrapper;
    WrappedLink link = WrappedLink::Make(wrapper);
    link.peer->Start(peerHandler);
    wrapper->Start(wrappedHandler);

    ASSERT_TRUE(wrapper->Send(NextFileRequest{1, 2, "a", 3}));
    ASSERT_TRUE(link.peer->Send(EndOfList{}));
    ASSERT_TRUE(peerHandler.WaitForMessages(1));
    ASSERT_TRUE(wrappedHandler.WaitForMessages(1));
    EXPECT_EQ(peerHandler.Messages(), (std::vector<Message>{NextFileRequest{1, 2, "a", 3}}));
    EXPECT_EQ(wrappedHandler.Messages(), std::vector<Message>{EndOfList{}});

    link.peer->Close();
    EXPECT_TRUE(wrappedHandler.WaitForClose()) << "the close passes through too";
}

TEST(ForwardingTransportTest, AWrapperChangesOnlyWhatItOverrides)
{
    RecordingHandler peerHandler;  // outlive the transports that call them
    RecordingHandler wrappedHandler;
    std::unique_ptr<RenamingWrapper> wrapper;
    WrappedLink link = WrappedLink::Make(wrapper);
    link.peer->Start(peerHandler);
    wrapper->Start(wrappedHandler);

    ASSERT_TRUE(wrapper->Send(TransferError{0, 3, "x"}));
    ASSERT_TRUE(link.peer->Send(TransferError{0, 3, "y"}));
    ASSERT_TRUE(peerHandler.WaitForMessages(1));
    ASSERT_TRUE(wrappedHandler.WaitForMessages(1));
    EXPECT_EQ(peerHandler.Messages(), (std::vector<Message>{TransferError{0, 3, "renamed: x"}}));
    EXPECT_EQ(wrappedHandler.Messages(), (std::vector<Message>{TransferError{0, 3, "y"}})) << "incoming untouched";
}

TEST(ForwardingTransportTest, DataReachesTheWrapperAsAnOrdinaryMessage)
{
    RecordingHandler peerHandler;  // outlive the transports that call them
    RecordingHandler wrappedHandler;
    std::unique_ptr<RenamingWrapper> wrapper;
    WrappedLink link = WrappedLink::Make(wrapper);
    link.peer->Start(peerHandler);
    wrapper->Start(wrappedHandler);

    const uint8_t bytes[] = {1, 2, 3};
    ASSERT_TRUE(wrapper->SendData(5, bytes, sizeof bytes));
    ASSERT_TRUE(peerHandler.WaitForMessages(1));
    EXPECT_EQ(wrapper->sent.load(), 1) << "SendData went through the wrapper's Send";
    EXPECT_EQ(peerHandler.Messages(), (std::vector<Message>{FileData{5, {1, 2, 3}}}));
}

TEST(ForwardingTransportTest, CloseReachesThePeerAndEndsTheDeliveries)
{
    RecordingHandler peerHandler;  // outlive the transports that call them
    RecordingHandler wrappedHandler;
    std::unique_ptr<PlainWrapper> wrapper;
    WrappedLink link = WrappedLink::Make(wrapper);
    link.peer->Start(peerHandler);
    wrapper->Start(wrappedHandler);

    wrapper->Close();
    EXPECT_TRUE(peerHandler.WaitForClose());
    EXPECT_FALSE(link.peer->Send(EndOfList{}));
    EXPECT_TRUE(wrappedHandler.Messages().empty());
}

}  // namespace
}  // namespace orin::xfer::test
