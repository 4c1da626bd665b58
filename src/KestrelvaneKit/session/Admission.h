#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <cstddef>
#include <stdexcept>
#include <string>

namespace kestrelvane {

/// The two messages that open every TLS connection between Kestrelvane
/// devices, before the transfer protocol: the client's hello, saying what it
/// came for and its name, and the receiver's answer. Each is one frame of at
/// most maxMessageBytes. A peer that sends anything else — too long,
/// malformed, a name that is no plain label — gets an AdmissionError and the
/// connection is to be ended.
namespace Admission {

inline constexpr std::size_t maxMessageBytes = 4096;
inline constexpr std::size_t maxNameCharacters = 64;

enum class Purpose { send, pair };

struct Hello {
    Purpose purpose = Purpose::send;
    std::string name;
    /// This end speaks the resume extension (docs/protocol.md); sent as
    /// "features": ["resume"].
    bool resume = false;
};

/// The receiver's answer: welcome (with its name), or refused with a reason.
struct Answer {
    enum class Refusal { none, unknownSender, pairingClosed, pairingBusy };
    Refusal refusal = Refusal::none;
    std::string name; ///< the receiver's, when welcome
    /// The receiver serves the resume extension, when welcome.
    bool resume = false;

    bool welcome() const noexcept { return refusal == Refusal::none; }
};

/// A peer's admission or pairing message that breaks the rules.
class AdmissionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

void send(KestrelvaneStream& stream, const Hello& hello);
void send(KestrelvaneStream& stream, const Answer& answer);
Hello readHello(KestrelvaneStream& stream);
Answer readAnswer(KestrelvaneStream& stream);

/// One frame of at most maxMessageBytes holding a JSON object, read without
/// taking a byte past it; its text. Throws AdmissionError, or the stream's
/// errors.
std::string readMessage(KestrelvaneStream& stream);
void sendMessage(KestrelvaneStream& stream, const std::string& json);

/// Throws AdmissionError unless `name` is a plain label (see
/// UnicodeText::isPlainLabel) of at most maxNameCharacters.
const std::string& checkedName(const std::string& name);

} // namespace Admission
} // namespace kestrelvane
