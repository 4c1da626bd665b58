#include "TunnelCapture.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>

namespace kestrelvane::sim {
namespace {

FileDescriptor create(const std::filesystem::path& path) {
    FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "cannot create " + path.string());
    }
    return file;
}

} // namespace

TunnelCapture::TunnelCapture(std::shared_ptr<KestrelvaneStream> inner,
                             const std::filesystem::path& folder, const std::string& name)
    : ForwardingStream(std::move(inner)), heard_(create(folder / (name + ".in"))),
      said_(create(folder / (name + ".out"))) {
}

void TunnelCapture::send(ByteView data) {
    FileDescriptor::writeAll(said_.get(), data);
    inner_->send(data);
}

Bytes TunnelCapture::receive(std::int64_t max) {
    Bytes bytes = inner_->receive(max);
    FileDescriptor::writeAll(heard_.get(), bytes);
    return bytes;
}

std::size_t TunnelCapture::receiveInto(MutableByteView into) {
    const std::size_t count = inner_->receiveInto(into);
    FileDescriptor::writeAll(heard_.get(), into.first(count));
    return count;
}

} // namespace kestrelvane::sim
