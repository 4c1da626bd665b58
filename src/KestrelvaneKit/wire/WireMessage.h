#pragma once

#include "KestrelvaneKit/wire/Ack.h"
#include "KestrelvaneKit/wire/Bytes.h"
#include "KestrelvaneKit/wire/FileHeader.h"
#include "KestrelvaneKit/wire/Holding.h"
#include "KestrelvaneKit/wire/SessionHeader.h"

#include <stdexcept>
#include <variant>

namespace kestrelvane {

/// The one place where the protocol's JSON form is fixed: compact UTF-8, keys
/// in declaration order, absent optionals left out, enumerations as their wire
/// strings, exact 64-bit integers, dates as RFC 3339 UTC with whole seconds,
/// and "/" written as "\/".
namespace WireMessage {

/// A message could not be written (invalid UTF-8 text, a date outside four-digit years).
class EncodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A payload is not a valid message of the expected type; the text says what was wrong.
class DecodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

Bytes encode(const SessionHeader& header);
Bytes encode(const FileHeader& header);
Bytes encode(const Ack& ack);
Bytes encode(const Holding& holding);

/// The message of type T in `payload`; unknown keys are ignored and a null
/// optional is absent. Throws DecodingError.
template <class T> T decode(ByteView payload);

template <> SessionHeader decode<SessionHeader>(ByteView payload);
template <> FileHeader decode<FileHeader>(ByteView payload);
template <> Ack decode<Ack>(ByteView payload);
template <> Holding decode<Holding>(ByteView payload);

/// What a receiver speaking the resume extension writes: an acknowledgement,
/// or a holding (the frame has the key "holding"). Throws DecodingError.
std::variant<Ack, Holding> decodeReply(ByteView payload);

} // namespace WireMessage
} // namespace kestrelvane
