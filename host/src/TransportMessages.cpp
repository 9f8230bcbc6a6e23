#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

namespace {

struct NameOf {
    const char* operator()(const FileListRequest&) const { return "FileListRequest"; }
    const char* operator()(const FileListMessage&) const { return "FileList"; }
    const char* operator()(const NextFileRequest&) const { return "NextFileRequest"; }
    const char* operator()(const FileStart&) const { return "FileStart"; }
    const char* operator()(const FileAccept&) const { return "FileAccept"; }
    const char* operator()(const FileData&) const { return "FileData"; }
    const char* operator()(const DataAck&) const { return "DataAck"; }
    const char* operator()(const TransferError&) const { return "TransferError"; }
    const char* operator()(const EndOfList&) const { return "EndOfList"; }
    const char* operator()(const EntryRefused&) const { return "EntryRefused"; }
    const char* operator()(const Disconnect&) const { return "Disconnect"; }
};

}  // namespace

const char* MessageName(const Message& message)
{
    return std::visit(NameOf{}, message);
}

}  // namespace orin::xfer::host
