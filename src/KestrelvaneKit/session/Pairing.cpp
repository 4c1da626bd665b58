#include "KestrelvaneKit/session/Pairing.h"

#include "KestrelvaneKit/session/Admission.h"

#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>

namespace kestrelvane::Pairing {
namespace {

using Block = std::array<std::uint8_t, 32>;

constexpr const char* exporterLabel = "EXPORTER-kestrelvane-pair-v1";

Block sha256(std::initializer_list<ByteView> parts) {
    Block digest{};
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    bool done = context != nullptr && EVP_DigestInit_ex(context, EVP_sha256(), nullptr) == 1;
    for (const ByteView part : parts) {
        done = done && EVP_DigestUpdate(context, part.data(), part.size()) == 1;
    }
    done = done && EVP_DigestFinal_ex(context, digest.data(), nullptr) == 1;
    EVP_MD_CTX_free(context);
    if (!done) {
        throw std::runtime_error("SHA-256 failed");
    }
    return digest;
}

ByteView bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Block randomBlock() {
    Block block{};
    if (RAND_bytes(block.data(), static_cast<int>(block.size())) != 1) {
        throw std::runtime_error("no random bytes to be had");
    }
    return block;
}

std::string hexOf(const Block& block) {
    return Fingerprint{block}.hex();
}

Block commitment(const Binding& binding, const Block& receiverNonce) {
    return sha256({bytesOf("kestrelvane pair commit v1"), binding.sender.bytes,
                   binding.receiver.bytes, binding.secret, receiverNonce});
}

/// The one field `key` of a pairing message, as 32 bytes written in hex.
Block blockField(KestrelvaneStream& stream, const char* key) {
    const auto message = nlohmann::json::parse(Admission::readMessage(stream), nullptr, false);
    const auto found = message.is_object() ? message.find(key) : message.end();
    if (found == message.end() || !found->is_string()) {
        throw Admission::AdmissionError(std::string("a pairing message without \"") + key + "\"");
    }
    const auto block = Fingerprint::fromHex(found->get<std::string>());
    if (!block) {
        throw Admission::AdmissionError(std::string("a \"") + key + "\" that is not 64 hex digits");
    }
    return block->bytes;
}

void sendBlock(KestrelvaneStream& stream, const char* key, const Block& block) {
    Admission::sendMessage(stream, nlohmann::json{{key, hexOf(block)}}.dump());
}

/// Asks this end's person, tells the other end the verdict and hears its own.
Outcome confirm(KestrelvaneStream& stream, const PairingOffer& offer, const AskPerson& ask) {
    std::string typed = ask(offer);
    std::erase(typed, ' ');
    std::string expected = offer.code;
    std::erase(expected, ' ');
    const bool matches = typed == expected;
    Admission::sendMessage(stream, nlohmann::json{{"confirm", matches}}.dump());
    const auto answer = nlohmann::json::parse(Admission::readMessage(stream), nullptr, false);
    const auto found = answer.is_object() ? answer.find("confirm") : answer.end();
    if (found == answer.end() || !found->is_boolean()) {
        throw Admission::AdmissionError("a pairing message without a yes or no");
    }
    return !matches             ? Outcome::codesDiffer
           : found->get<bool>() ? Outcome::paired
                                : Outcome::peerDeclined;
}

} // namespace

std::string code(const Binding& binding, const Block& senderNonce, const Block& receiverNonce) {
    const Block digest =
        sha256({bytesOf("kestrelvane pair code v1"), binding.sender.bytes, binding.receiver.bytes,
                binding.secret, senderNonce, receiverNonce});
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        value = value << 8 | digest[i];
    }
    char text[8];
    std::snprintf(text, sizeof text, "%03u %03u", static_cast<unsigned>(value % 1000000 / 1000),
                  static_cast<unsigned>(value % 1000));
    return text;
}

Binding Binding::of(TlsStream& stream) {
    const bool sending = stream.role() == TlsStream::Role::client;
    return {sending ? stream.ownFingerprint() : stream.peerFingerprint(),
            sending ? stream.peerFingerprint() : stream.ownFingerprint(),
            stream.exportedSecret(exporterLabel)};
}

Outcome asSender(KestrelvaneStream& stream, const Binding& binding, const std::string& receiverName,
                 const AskPerson& ask) {
    const Block committed = blockField(stream, "commit");
    const Block senderNonce = randomBlock();
    sendBlock(stream, "nonce", senderNonce);
    // From here on a connection that ends may be a relay that did not like
    // the code it was heading for: that is said, not taken as a hiccup.
    try {
        const Block receiverNonce = blockField(stream, "nonce");
        if (commitment(binding, receiverNonce) != committed) {
            return Outcome::commitmentBroken;
        }
        return confirm(stream,
                       {receiverName, binding.receiver, code(binding, senderNonce, receiverNonce)},
                       ask);
    } catch (const StreamError&) {
        return Outcome::brokenAfterReveal;
    } catch (const std::system_error&) {
        return Outcome::brokenAfterReveal;
    }
}

Outcome asReceiver(KestrelvaneStream& stream, const Binding& binding, const std::string& senderName,
                   const AskPerson& ask) {
    const Block receiverNonce = randomBlock();
    sendBlock(stream, "commit", commitment(binding, receiverNonce));
    const Block senderNonce = blockField(stream, "nonce");
    sendBlock(stream, "nonce", receiverNonce);
    try {
        return confirm(
            stream, {senderName, binding.sender, code(binding, senderNonce, receiverNonce)}, ask);
    } catch (const StreamError&) {
        return Outcome::brokenAfterReveal;
    } catch (const std::system_error&) {
        return Outcome::brokenAfterReveal;
    }
}

Outcome asSender(TlsStream& stream, const std::string& receiverName, const AskPerson& ask) {
    return asSender(stream, Binding::of(stream), receiverName, ask);
}

Outcome asReceiver(TlsStream& stream, const std::string& senderName, const AskPerson& ask) {
    return asReceiver(stream, Binding::of(stream), senderName, ask);
}

} // namespace kestrelvane::Pairing
