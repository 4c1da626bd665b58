#include "KestrelvaneKit/wire/WireMessage.h"

#include <nlohmann/json.hpp>

#include <initializer_list>
#include <limits>

namespace kestrelvane::WireMessage {
namespace {

using ordered_json = nlohmann::ordered_json;
using json = nlohmann::json;

// Messages nest no deeper than one object; unknown keys may hold more, but a
// hostile payload must not buy unbounded recursion.
constexpr int maxDepth = 64;

Bytes serialize(const ordered_json& message) {
    std::string text;
    try {
        text = message.dump();
    } catch (const json::exception& error) {
        throw EncodingError(std::string("cannot encode message: ") + error.what());
    }
    // "/" can only occur inside strings (UTF-8 never uses the byte 0x2F within a
    // multi-byte sequence), so escaping every one of them is exact.
    Bytes out;
    out.reserve(text.size() + 8);
    for (const char c : text) {
        if (c == '/') {
            out.push_back('\\');
        }
        out.push_back(static_cast<std::uint8_t>(c));
    }
    return out;
}

std::string typeNameOf(const json& value) {
    return value.type_name();
}

/// Reads the fields of one message object and names the message in every error.
class FieldReader {
public:
    FieldReader(std::string_view messageName, ByteView payload) : messageName_(messageName) {
        const auto depthGuard = [this](int depth, json::parse_event_t, json&) {
            if (depth > maxDepth) {
                fail("payload nests deeper than " + std::to_string(maxDepth) + " levels");
            }
            return true;
        };
        try {
            object_ = json::parse(payload.begin(), payload.end(), depthGuard);
        } catch (const json::exception& error) { // syntax, or a number like 1e400
            fail(std::string("payload is not valid JSON (") + error.what() + ")");
        }
        if (!object_.is_object()) {
            fail("payload is a JSON " + typeNameOf(object_) + ", not an object");
        }
    }

    std::string requiredString(const char* key) const {
        const json& value = required(key);
        return stringValue(key, value);
    }

    std::optional<std::string> optionalString(const char* key) const {
        const json* value = optional(key);
        return value ? std::optional(stringValue(key, *value)) : std::nullopt;
    }

    std::uint64_t requiredUnsigned(const char* key) const {
        const json& value = required(key);
        if (value.is_number_unsigned()) {
            return value.get<std::uint64_t>();
        }
        if (value.is_number_integer() && value.get<std::int64_t>() == 0) {
            return 0; // "-0"
        }
        fail(quoted(key) + " must be an integer from 0 to 18446744073709551615, not " +
             value.dump());
    }

    // The resume extension's keys: one of another type is absent, as any key
    // a version-1 reader does not know is.
    std::optional<std::uint64_t> extensionUnsigned(const char* key) const {
        const json* value = optional(key);
        return value && value->is_number_unsigned() ? std::optional(value->get<std::uint64_t>())
                                                    : std::nullopt;
    }

    std::optional<std::int64_t> extensionSigned(const char* key) const {
        const json* value = optional(key);
        return value && value->is_number_integer() && !value->is_number_unsigned()
                   ? std::optional(value->get<std::int64_t>())
               : value && value->is_number_unsigned() &&
                       value->get<std::uint64_t>() <= std::numeric_limits<std::int64_t>::max()
                   ? std::optional(static_cast<std::int64_t>(value->get<std::uint64_t>()))
                   : std::nullopt;
    }

    std::optional<std::string> extensionString(const char* key) const {
        const json* value = optional(key);
        return value && value->is_string() ? std::optional(value->get<std::string>())
                                           : std::nullopt;
    }

    bool extensionFlag(const char* key) const {
        const json* value = optional(key);
        return value && value->is_boolean() && value->get<bool>();
    }

    bool has(const char* key) const { return object_.contains(key); }

    std::int64_t requiredSigned(const char* key) const {
        const json& value = required(key);
        if (value.is_number_unsigned() &&
            value.get<std::uint64_t>() >
                static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            fail(quoted(key) + " must be a signed 64-bit integer, not " + value.dump());
        }
        if (!value.is_number_integer()) {
            fail(quoted(key) + " must be an integer, not " + value.dump());
        }
        return value.get<std::int64_t>();
    }

    /// The one of `cases` whose wireString() is the text under `key`.
    template <class Enum>
    Enum requiredEnum(const char* key, std::initializer_list<Enum> cases) const {
        const std::string text = requiredString(key);
        for (const Enum value : cases) {
            if (wireString(value) == text) {
                return value;
            }
        }
        fail(quoted(key) + " has an unknown value " + json(text).dump());
    }

    std::optional<Timestamp> optionalDate(const char* key) const {
        const auto text = optionalString(key);
        if (!text) {
            return std::nullopt;
        }
        const auto date = Rfc3339::parse(*text);
        if (!date) {
            fail(quoted(key) + " must be an RFC 3339 date-time with whole seconds, not " +
                 json(*text).dump());
        }
        return date;
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw DecodingError(std::string(messageName_) + ": " + what);
    }

    static std::string quoted(const char* key) { return std::string("\"") + key + "\""; }

    const json& required(const char* key) const {
        const auto found = object_.find(key);
        if (found == object_.end()) {
            fail("missing key " + quoted(key));
        }
        if (found->is_null()) {
            fail(quoted(key) + " must not be null");
        }
        return *found;
    }

    const json* optional(const char* key) const {
        const auto found = object_.find(key);
        return found == object_.end() || found->is_null() ? nullptr : &*found;
    }

    std::string stringValue(const char* key, const json& value) const {
        if (!value.is_string()) {
            fail(quoted(key) + " must be a string, not " + typeNameOf(value));
        }
        return value.get<std::string>();
    }

    std::string_view messageName_;
    json object_;
};

} // namespace

Bytes encode(const SessionHeader& header) {
    ordered_json message;
    message["schemaVersion"] = header.schemaVersion;
    message["direction"] = wireString(header.direction);
    if (header.albumName) {
        message["albumName"] = *header.albumName;
    }
    if (header.resume) {
        message["resume"] = *header.resume;
    }
    if (header.device) {
        message["device"] = *header.device;
    }
    return serialize(message);
}

Bytes encode(const FileHeader& header) {
    ordered_json message;
    message["name"] = header.name;
    message["mediaType"] = wireString(header.mediaType);
    message["byteCount"] = header.byteCount;
    message["sha256"] = header.sha256;
    if (header.creationDate) {
        try {
            message["creationDate"] = Rfc3339::format(*header.creationDate);
        } catch (const std::out_of_range& error) {
            throw EncodingError(std::string("cannot encode creationDate: ") + error.what());
        }
    }
    if (header.offer) {
        message["offer"] = true;
    }
    if (header.from) {
        message["from"] = *header.from;
    }
    return serialize(message);
}

Bytes encode(const Ack& ack) {
    ordered_json message;
    message["name"] = ack.name;
    message["status"] = wireString(ack.status);
    if (ack.message) {
        message["message"] = *ack.message;
    }
    return serialize(message);
}

Bytes encode(const Holding& holding) {
    ordered_json message;
    message["name"] = holding.name;
    message["holding"] = wireString(holding.kind);
    if (holding.bytes) {
        message["bytes"] = *holding.bytes;
    }
    if (holding.prefixSha256) {
        message["prefixSha256"] = *holding.prefixSha256;
    }
    return serialize(message);
}

template <> SessionHeader decode<SessionHeader>(ByteView payload) {
    const FieldReader reader("SessionHeader", payload);
    return SessionHeader{
        .schemaVersion = reader.requiredSigned("schemaVersion"),
        .direction = reader.requiredEnum("direction", {SessionHeader::Direction::macToPhone,
                                                       SessionHeader::Direction::phoneToMac}),
        .albumName = reader.optionalString("albumName"),
        .resume = reader.extensionSigned("resume"),
        .device = reader.extensionString("device"),
    };
}

template <> FileHeader decode<FileHeader>(ByteView payload) {
    const FieldReader reader("FileHeader", payload);
    return FileHeader{
        .name = reader.requiredString("name"),
        .mediaType = reader.requiredEnum("mediaType", {MediaType::photo, MediaType::video}),
        .byteCount = reader.requiredUnsigned("byteCount"),
        .sha256 = reader.requiredString("sha256"),
        .creationDate = reader.optionalDate("creationDate"),
        .offer = reader.extensionFlag("offer"),
        .from = reader.extensionUnsigned("from"),
    };
}

namespace {

Holding holdingFrom(const FieldReader& reader) {
    return Holding{
        .name = reader.requiredString("name"),
        .kind = reader.requiredEnum(
            "holding", {Holding::Kind::saved, Holding::Kind::partial, Holding::Kind::none}),
        .bytes = reader.extensionUnsigned("bytes"),
        .prefixSha256 = reader.extensionString("prefixSha256"),
    };
}

Ack ackFrom(const FieldReader& reader) {
    return Ack{
        .name = reader.requiredString("name"),
        .status = reader.requiredEnum("status", {Ack::Status::ok, Ack::Status::error}),
        .message = reader.optionalString("message"),
    };
}

} // namespace

template <> Ack decode<Ack>(ByteView payload) {
    return ackFrom(FieldReader("Ack", payload));
}

template <> Holding decode<Holding>(ByteView payload) {
    return holdingFrom(FieldReader("Holding", payload));
}

std::variant<Ack, Holding> decodeReply(ByteView payload) {
    const FieldReader reader("reply", payload);
    if (reader.has("holding")) {
        return holdingFrom(reader);
    }
    return ackFrom(reader);
}

} // namespace kestrelvane::WireMessage
