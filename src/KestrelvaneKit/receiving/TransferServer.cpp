#include "KestrelvaneKit/receiving/TransferServer.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "KestrelvaneKit/wire/WireMessage.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <thread>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

/// Sends one acknowledgement; a message that cannot be encoded goes out as an
/// empty frame and a failed send is ignored: the session's fate is decided by
/// the reader, not by the acknowledgements.
void sendAckIgnoringErrors(FrameChannel& channel, const Ack& ack) {
    Bytes payload;
    try {
        payload = WireMessage::encode(ack);
    } catch (const WireMessage::EncodingError&) {
        payload.clear();
    }
    try {
        channel.sendFrame(payload);
    } catch (...) {
        // The connection is gone or failing; the reader will find out.
    }
}

void removeIgnoringErrors(const fs::path& path) {
    std::error_code ignored;
    fs::remove(path, ignored);
}

std::string freshUpperCaseUuid() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_upper(uuid, text);
    return text;
}

} // namespace

TransferServer::TransferServer(BatchSaving& saver, fs::path temporaryDirectory)
    : saver_(saver), temporaryDirectory_(std::move(temporaryDirectory)) {
}

void TransferServer::run(FrameChannel& over, const OnEvent& onEvent) noexcept {
    KVLog::listener().info(KVLog::Lines::accepted());
    const double start = KVLog::now();

    const auto writeAcknowledgements = [this, &over, &onEvent] {
        while (auto outcome = saver_.outcomes().next()) {
            const Ack ack{
                .name = outcome->name, .status = outcome->status, .message = outcome->message};
            sendAckIgnoringErrors(over, ack);
            if (onEvent) {
                try {
                    onEvent(Event{.name = outcome->name, .ack = ack});
                } catch (...) {
                    // The caller's observer must not stop the acknowledgements.
                }
            }
        }
    };

    std::jthread writer;
    try {
        writer = std::jthread(writeAcknowledgements);
    } catch (...) {
        // No thread to spare: the outcomes are acknowledged below instead.
    }

    try {
        runReader(over);
    } catch (...) {
        // Every way the reader can fail ends the session in the same way.
    }
    KVLog::listener().info(KVLog::Lines::readerEnded(KVLog::now() - start));

    try {
        saver_.flushAndDrain();
    } catch (...) {
        saver_.outcomes().finish();
    }
    if (writer.joinable()) {
        writer.join();
    } else {
        try {
            writeAcknowledgements();
        } catch (...) {
        }
    }
}

void TransferServer::runReader(FrameChannel& channel) {
    const SessionHeader session =
        WireMessage::decode<SessionHeader>(channel.receiveFrame(maxHeaderFrameBytes));
    saver_.begin(session);

    // One piece's memory for the whole session: file bytes are received into
    // it, hashed and written from it.
    Bytes pieceBuffer(static_cast<std::size_t>(pieceBytes));
    bool sessionGoesOn = true;
    while (sessionGoesOn) {
        const FileHeader header =
            WireMessage::decode<FileHeader>(channel.receiveFrame(maxHeaderFrameBytes));
        if (header.byteCount > maxFileBytes) {
            return;
        }
        receiveFile(channel, header, pieceBuffer, sessionGoesOn);
    }
}

void TransferServer::receiveFile(FrameChannel& channel, const FileHeader& header,
                                 MutableByteView pieceBuffer, bool& sessionGoesOn) {
    const double start = KVLog::now();
    const fs::path temporaryFile = temporaryFileFor(header.name);
    FileDescriptor handle;
    if (!temporaryFile.empty()) {
        handle.reset(::open(temporaryFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    }
    if (!handle) {
        reject(channel, header.name, "could not open temp file");
        removeIgnoringErrors(temporaryFile);
        sessionGoesOn = false; // the file's bytes are still in the stream
        return;
    }

    Sha256Hasher hasher;
    std::uint64_t remaining = header.byteCount;
    while (remaining > 0) {
        const MutableByteView piece = pieceBuffer.first(
            static_cast<std::size_t>(std::min<std::uint64_t>(remaining, pieceBuffer.size())));
        try {
            channel.receiveRawInto(piece);
        } catch (...) {
            handle.reset();
            removeIgnoringErrors(temporaryFile);
            throw;
        }
        hasher.update(piece);
        try {
            FileDescriptor::writeAll(handle.get(), piece);
        } catch (const std::system_error&) {
            handle.reset();
            removeIgnoringErrors(temporaryFile);
            sessionGoesOn = false;
            return;
        }
        remaining -= piece.size();
    }
    handle.reset();

    const double elapsed = KVLog::now() - start;
    KVLog::net().info(KVLog::Lines::recv(header.name, header.byteCount, elapsed));

    if (hasher.finalizeHex() != header.sha256) {
        KVLog::net().error(KVLog::Lines::checksumMismatch(header.name));
        reject(channel, header.name, "checksum mismatch");
        removeIgnoringErrors(temporaryFile);
        return;
    }
    // From here on the file is the saver's.
    saver_.enqueue(temporaryFile, header);
}

void TransferServer::reject(FrameChannel& channel, const std::string& name,
                            const char* message) noexcept {
    const Ack ack{.name = name, .status = Ack::Status::error, .message = message};
    sendAckIgnoringErrors(channel, ack);
    if (!onRejected_) {
        return;
    }
    try {
        onRejected_(Event{.name = name, .ack = ack});
    } catch (...) {
        // The caller's observer must not end the session.
    }
}

fs::path TransferServer::temporaryFileFor(const std::string& name) const {
    std::error_code error;
    const fs::path directory =
        temporaryDirectory_.empty() ? fs::temp_directory_path(error) : temporaryDirectory_;
    if (error) {
        return {}; // no usable temporary directory: nothing can be opened
    }
    // The UUID prefix makes the name unique, and a name with a "/" in it
    // points into a folder that does not exist instead of anywhere else.
    return directory / (freshUpperCaseUuid() + "-" + name);
}

} // namespace kestrelvane
