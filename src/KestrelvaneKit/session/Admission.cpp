#include "KestrelvaneKit/session/Admission.h"

#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>

namespace kestrelvane::Admission {
namespace {

using Refusal = Answer::Refusal;

constexpr std::array<std::pair<Refusal, const char*>, 3> refusalWords = {{
    {Refusal::unknownSender, "unknown-sender"},
    {Refusal::pairingClosed, "pairing-closed"},
    {Refusal::pairingBusy, "pairing-busy"},
}};

void receiveExactly(KestrelvaneStream& stream, MutableByteView into) {
    for (std::size_t got = 0; got < into.size();) {
        got += stream.receiveInto(into.subspan(got));
    }
}

nlohmann::json parsed(const std::string& text, const char* what) {
    try {
        nlohmann::json message = nlohmann::json::parse(text);
        if (!message.is_object()) {
            throw AdmissionError(std::string(what) + " is not a JSON object");
        }
        return message;
    } catch (const nlohmann::json::exception& error) {
        throw AdmissionError(std::string(what) + " is not JSON: " + error.what());
    }
}

/// Whether the message's "features" list names `feature`. Anything else
/// under the key, as any key it does not know, counts for nothing: an end
/// that knows fewer features than its peer still talks to it.
bool hasFeature(const nlohmann::json& message, const char* feature) {
    const auto found = message.find("features");
    if (found == message.end() || !found->is_array()) {
        return false;
    }
    return std::any_of(found->begin(), found->end(), [&](const nlohmann::json& entry) {
        return entry.is_string() && entry.get<std::string>() == feature;
    });
}

template <class T> T field(const nlohmann::json& message, const char* key, const char* what) {
    const auto found = message.find(key);
    if (found == message.end()) {
        throw AdmissionError(std::string(what) + " lacks \"" + key + "\"");
    }
    try {
        return found->get<T>();
    } catch (const nlohmann::json::exception&) {
        throw AdmissionError(std::string(what) + " has a \"" + key + "\" of the wrong type");
    }
}

} // namespace

std::string readMessage(KestrelvaneStream& stream) {
    Bytes prefix(FrameCodec::prefixLength);
    receiveExactly(stream, prefix);
    const std::uint32_t length = *FrameCodec::peekLength(prefix);
    if (length > maxMessageBytes) {
        throw AdmissionError("a message of " + std::to_string(length) + " bytes, above " +
                             std::to_string(maxMessageBytes));
    }
    Bytes payload(length);
    receiveExactly(stream, payload);
    return std::string(payload.begin(), payload.end());
}

void sendMessage(KestrelvaneStream& stream, const std::string& json) {
    stream.send(FrameCodec::encode(
        ByteView(reinterpret_cast<const std::uint8_t*>(json.data()), json.size())));
}

const std::string& checkedName(const std::string& name) {
    if (!UnicodeText::isPlainLabel(name, maxNameCharacters)) {
        throw AdmissionError("a name that is empty, longer than " +
                             std::to_string(maxNameCharacters) +
                             " characters or holds control characters");
    }
    return name;
}

void send(KestrelvaneStream& stream, const Hello& hello) {
    nlohmann::json message{{"hello", 1},
                           {"purpose", hello.purpose == Purpose::pair ? "pair" : "send"},
                           {"name", hello.name}};
    if (hello.resume) {
        message["features"] = {"resume"};
    }
    sendMessage(stream, message.dump());
}

void send(KestrelvaneStream& stream, const Answer& answer) {
    nlohmann::json message;
    if (answer.welcome()) {
        message = {{"welcome", 1}, {"name", answer.name}};
        if (answer.resume) {
            message["features"] = {"resume"};
        }
    } else {
        for (const auto& [refusal, word] : refusalWords) {
            if (refusal == answer.refusal) {
                message = {{"refused", word}};
            }
        }
    }
    sendMessage(stream, message.dump());
}

Hello readHello(KestrelvaneStream& stream) {
    const nlohmann::json message = parsed(readMessage(stream), "the hello");
    if (field<int>(message, "hello", "the hello") != 1) {
        throw AdmissionError("a hello of another version");
    }
    const auto purpose = field<std::string>(message, "purpose", "the hello");
    if (purpose != "send" && purpose != "pair") {
        throw AdmissionError("a hello for \"" + UnicodeText::printable(purpose) + "\"");
    }
    return {purpose == "pair" ? Purpose::pair : Purpose::send,
            checkedName(field<std::string>(message, "name", "the hello")),
            hasFeature(message, "resume")};
}

Answer readAnswer(KestrelvaneStream& stream) {
    const nlohmann::json message = parsed(readMessage(stream), "the answer");
    if (message.contains("welcome")) {
        return {Refusal::none, checkedName(field<std::string>(message, "name", "the answer")),
                hasFeature(message, "resume")};
    }
    const auto word = field<std::string>(message, "refused", "the answer");
    for (const auto& [refusal, known] : refusalWords) {
        if (word == known) {
            return {refusal, {}};
        }
    }
    throw AdmissionError("a refusal for \"" + UnicodeText::printable(word) + "\"");
}

} // namespace kestrelvane::Admission
