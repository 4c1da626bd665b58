#include "KestrelvaneKit/receiving/TransferServer.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "KestrelvaneKit/wire/WireMessage.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <optional>
#include <thread>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

/// Sends one acknowledgement or holding; a message that cannot be encoded
/// goes out as an empty frame and a failed send is ignored: the session's fate
/// is decided by the reader, which may still have bytes to read from a sender
/// that has hung up.
template <class Message> void sendIgnoringErrors(FrameChannel& channel, const Message& message) {
    Bytes payload;
    try {
        payload = WireMessage::encode(message);
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
            sendIgnoringErrors(over, ack);
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
        runReader(over, onEvent);
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

struct TransferServer::Incoming {
    fs::path file{};
    FileDescriptor handle{};
    Sha256Hasher hasher{};                      // already fed the bytes held before this session
    std::uint64_t from = 0;                     // of them
    std::optional<PartialStore::Key> partial{}; // kept if the session breaks
};

struct TransferServer::Offered {
    FileHeader offer{};
    std::optional<std::uint64_t> heldBytes{}; // as the holding said
    Incoming incoming{};
};

void TransferServer::enableResume(PartialStore partials, std::optional<std::string> provenDevice) {
    partials_ = std::move(partials);
    provenDevice_ = std::move(provenDevice);
}

void TransferServer::runReader(FrameChannel& channel, const OnEvent& onEvent) {
    const SessionHeader session =
        WireMessage::decode<SessionHeader>(channel.receiveFrame(maxHeaderFrameBytes));
    saver_.begin(session);
    // The extension only with a sender that announced it: to any other, not
    // a frame of it is written.
    const bool resuming = partials_ && session.resume.has_value();
    // Partials are tied to a device the transport proved, else to the one
    // the header names, if it looks like a fingerprint at all.
    std::string device = provenDevice_.value_or(session.device.value_or(""));
    if (device.size() != 64 || device.find_first_not_of("0123456789abcdef") != std::string::npos) {
        device.clear();
    }
    if (resuming) {
        partials_->prune();
    }

    // One piece's memory for the whole session: file bytes are received into
    // it, hashed and written from it.
    Bytes pieceBuffer(static_cast<std::size_t>(pieceBytes));
    // Offers answered whose files are still to come: the sender may offer
    // the next file before it sends the current one, and no further ahead.
    std::deque<Offered> offered;
    bool sessionGoesOn = true;
    while (sessionGoesOn) {
        const FileHeader header =
            WireMessage::decode<FileHeader>(channel.receiveFrame(maxHeaderFrameBytes));
        if (header.byteCount > maxFileBytes) {
            return;
        }
        if (resuming && header.offer) {
            if (header.from || offered.size() > 1) {
                return;
            }
            if (auto answered = answerOffer(channel, header, device, onEvent)) {
                offered.push_back(std::move(*answered));
            }
            continue;
        }
        if (resuming) {
            if (offered.empty()) {
                return; // a file nobody offered
            }
            Offered file = std::move(offered.front());
            offered.pop_front();
            receiveOffered(channel, header, std::move(file), pieceBuffer, sessionGoesOn);
            continue;
        }
        Incoming incoming;
        incoming.file = temporaryFileFor(header.name);
        if (!incoming.file.empty()) {
            incoming.handle.reset(
                ::open(incoming.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        }
        receiveFile(channel, header, pieceBuffer, sessionGoesOn, std::move(incoming));
    }
}

std::optional<TransferServer::Offered> TransferServer::answerOffer(FrameChannel& channel,
                                                                   const FileHeader& offer,
                                                                   const std::string& device,
                                                                   const OnEvent& onEvent) {
    if (saver_.holds(offer)) {
        // The holding settles the file for the sender as an "ok" would.
        sendIgnoringErrors(channel, Holding{.name = offer.name, .kind = Holding::Kind::saved});
        if (onEvent) {
            onEvent(Event{.name = offer.name,
                          .ack = Ack{.name = offer.name, .status = Ack::Status::ok},
                          .held = true});
        }
        return std::nullopt;
    }
    Offered offered{.offer = offer};
    Incoming& incoming = offered.incoming;
    Holding holding{.name = offer.name, .kind = Holding::Kind::none};
    if (!device.empty()) {
        incoming.partial = PartialStore::Key{.device = device,
                                             .name = offer.name,
                                             .byteCount = offer.byteCount,
                                             .sha256 = offer.sha256};
        const auto held = partials_->held(*incoming.partial);
        if (held && *held > 0) {
            try {
                incoming.hasher.updateFromFile(partials_->bytesPath(*incoming.partial), *held);
                holding = Holding{.name = offer.name,
                                  .kind = Holding::Kind::partial,
                                  .bytes = *held,
                                  .prefixSha256 = incoming.hasher.digestSoFarHex()};
            } catch (const std::exception&) {
                partials_->remove(*incoming.partial);
                incoming.hasher = Sha256Hasher();
            }
        }
    }
    offered.heldBytes = holding.bytes;
    sendIgnoringErrors(channel, holding);
    return offered;
}

void TransferServer::receiveOffered(FrameChannel& channel, const FileHeader& header,
                                    Offered offered, MutableByteView pieceBuffer,
                                    bool& sessionGoesOn) {
    const std::uint64_t from = header.from.value_or(0);
    const FileHeader& offer = offered.offer;
    const bool sameFile = header.name == offer.name && header.byteCount == offer.byteCount &&
                          header.sha256 == offer.sha256;
    if (!sameFile || (from != 0 && from != offered.heldBytes)) {
        sessionGoesOn = false; // the sender broke the extension's rules
        return;
    }
    Incoming& incoming = offered.incoming;
    if (from == 0) {
        incoming.hasher = Sha256Hasher(); // what was held is not used
    }
    incoming.from = from;
    try {
        if (incoming.partial) {
            incoming.file = partials_->bytesPath(*incoming.partial);
            incoming.handle = partials_->open(*incoming.partial, from);
        } else {
            incoming.file = temporaryFileFor(header.name);
            incoming.handle.reset(
                ::open(incoming.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        }
    } catch (const std::system_error&) {
        incoming.handle.reset();
    }
    receiveFile(channel, header, pieceBuffer, sessionGoesOn, std::move(incoming));
}

void TransferServer::receiveFile(FrameChannel& channel, const FileHeader& header,
                                 MutableByteView pieceBuffer, bool& sessionGoesOn,
                                 Incoming incoming) {
    const double start = KVLog::now();
    const auto discard = [&] {
        incoming.handle.reset();
        if (incoming.partial) {
            partials_->remove(*incoming.partial);
        } else {
            removeIgnoringErrors(incoming.file);
        }
    };
    if (!incoming.handle) {
        reject(channel, header.name, "could not open temp file");
        discard();
        sessionGoesOn = false; // the file's bytes are still in the stream
        return;
    }

    std::uint64_t remaining = header.byteCount - incoming.from;
    while (remaining > 0) {
        const MutableByteView piece = pieceBuffer.first(
            static_cast<std::size_t>(std::min<std::uint64_t>(remaining, pieceBuffer.size())));
        try {
            channel.receiveRawInto(piece);
        } catch (...) {
            // A partial stays for the sender to resume, with every byte that
            // arrived; a temporary file goes.
            if (incoming.partial) {
                try {
                    FileDescriptor::writeAll(incoming.handle.get(),
                                             piece.first(channel.takeBuffered(piece)));
                } catch (const std::system_error&) {
                    // What reached the disk is kept; the prefix check covers the rest.
                }
                incoming.handle.reset();
            } else {
                discard();
            }
            throw;
        }
        incoming.hasher.update(piece);
        try {
            FileDescriptor::writeAll(incoming.handle.get(), piece);
        } catch (const std::system_error&) {
            discard();
            sessionGoesOn = false;
            return;
        }
        remaining -= piece.size();
    }
    incoming.handle.reset();

    const double elapsed = KVLog::now() - start;
    KVLog::net().info(KVLog::Lines::recv(header.name, header.byteCount, elapsed));

    if (incoming.hasher.finalizeHex() != header.sha256) {
        KVLog::net().error(KVLog::Lines::checksumMismatch(header.name));
        reject(channel, header.name, "checksum mismatch");
        discard();
        return;
    }
    fs::path verified = incoming.file;
    if (incoming.partial) {
        // Out of the partial's name before the saver takes it, so that
        // forgetting the partial cannot touch the saved file.
        verified = temporaryFileFor(header.name);
        std::error_code error;
        fs::rename(incoming.file, verified, error);
        if (error) {
            verified = incoming.file.parent_path() / (freshUpperCaseUuid() + ".saving");
            fs::rename(incoming.file, verified, error);
        }
        if (error) {
            reject(channel, header.name, "could not open temp file");
            discard();
            return;
        }
        partials_->remove(*incoming.partial);
    }
    // From here on the file is the saver's.
    saver_.enqueue(verified, header);
}

void TransferServer::reject(FrameChannel& channel, const std::string& name,
                            const char* message) noexcept {
    const Ack ack{.name = name, .status = Ack::Status::error, .message = message};
    sendIgnoringErrors(channel, ack);
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
