#include "KestrelvaneKit/wire/WireMessage.h"

#include <gtest/gtest.h>

#include <limits>

namespace kestrelvane {
namespace {

using namespace std::chrono;

Timestamp utc(int y, unsigned mo, unsigned d, int h, int mi, int s) {
    return Timestamp{sys_days{year{y} / mo / d} + hours{h} + minutes{mi} + seconds{s}};
}

std::string encoded(const auto& message) {
    const Bytes bytes = WireMessage::encode(message);
    return std::string(asText(bytes));
}

template <class T> std::string decodingError(std::string_view json) {
    try {
        WireMessage::decode<T>(asBytes(json));
    } catch (const WireMessage::DecodingError& error) {
        return error.what();
    }
    ADD_FAILURE() << "decoded without error: " << json;
    return {};
}

TEST(WireMessage, EncodesTheProtocolExamplesExactly) {
    EXPECT_EQ(encoded(SessionHeader{.schemaVersion = 1,
                                    .direction = SessionHeader::Direction::macToPhone,
                                    .albumName = "Trip"}),
              R"({"schemaVersion":1,"direction":"macToPhone","albumName":"Trip"})");
    EXPECT_EQ(encoded(SessionHeader{}), R"({"schemaVersion":1,"direction":"macToPhone"})");
    EXPECT_EQ(
        encoded(
            FileHeader{.name = "empty.jpg",
                       .mediaType = MediaType::photo,
                       .byteCount = 0,
                       .sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
                       .creationDate = utc(2024, 3, 5, 14, 7, 9)}),
        R"({"name":"empty.jpg","mediaType":"photo","byteCount":0,"sha256":"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855","creationDate":"2024-03-05T14:07:09Z"})");
    EXPECT_EQ(encoded(Ack{.name = "IMG_0001.HEIC", .status = Ack::Status::ok}),
              R"({"name":"IMG_0001.HEIC","status":"ok"})");
    EXPECT_EQ(encoded(Ack{.name = "IMG_0001.HEIC",
                          .status = Ack::Status::error,
                          .message = "checksum mismatch"}),
              R"({"name":"IMG_0001.HEIC","status":"error","message":"checksum mismatch"})");
}

TEST(WireMessage, EscapesSlashAndWritesNonAsciiAsUtf8) {
    const Ack ack{.name = "Ferien/Grüße 🌅.jpg", .status = Ack::Status::error, .message = "a/b"};
    EXPECT_EQ(encoded(ack), R"({"name":"Ferien\/Grüße 🌅.jpg","status":"error","message":"a\/b"})");
    EXPECT_EQ(WireMessage::decode<Ack>(WireMessage::encode(ack)), ack);
    EXPECT_EQ(encoded(Ack{.name = "q\"\\\n"}), R"({"name":"q\"\\\n","status":"ok"})");
}

TEST(WireMessage, SixtyFourBitIntegersRoundTripExactly) {
    for (const std::uint64_t count : {std::uint64_t{0}, std::uint64_t{5'000'000'000},
                                      std::numeric_limits<std::uint64_t>::max()}) {
        const FileHeader header{
            .name = "big.mov", .mediaType = MediaType::video, .byteCount = count, .sha256 = "x"};
        EXPECT_EQ(WireMessage::decode<FileHeader>(WireMessage::encode(header)), header);
    }
    EXPECT_EQ(encoded(FileHeader{.name = "n", .byteCount = 18446744073709551615u, .sha256 = ""}),
              R"({"name":"n","mediaType":"photo","byteCount":18446744073709551615,"sha256":""})");
    for (const std::int64_t version : {std::numeric_limits<std::int64_t>::min(), std::int64_t{2},
                                       std::numeric_limits<std::int64_t>::max()}) {
        const SessionHeader header{.schemaVersion = version};
        EXPECT_EQ(WireMessage::decode<SessionHeader>(WireMessage::encode(header)), header);
    }
}

TEST(WireMessage, DropsFractionsOfASecondSoTheRoundTripDiffers) {
    const FileHeader header{.name = "a.jpg",
                            .sha256 = "s",
                            .creationDate = utc(2024, 3, 5, 12, 0, 0) + milliseconds(750)};
    const Bytes bytes = WireMessage::encode(header);
    EXPECT_NE(asText(bytes).find(R"("creationDate":"2024-03-05T12:00:00Z")"), std::string::npos);
    const FileHeader decoded = WireMessage::decode<FileHeader>(bytes);
    EXPECT_EQ(*header.creationDate - *decoded.creationDate, milliseconds(750));
    EXPECT_NE(decoded, header);
    // Before 1970 the fraction is dropped toward the past as well.
    EXPECT_EQ(Rfc3339::format(utc(1969, 12, 31, 23, 59, 59) + milliseconds(500)),
              "1969-12-31T23:59:59Z");
}

TEST(WireMessage, ReadsOnlyWholeSecondRfc3339Dates) {
    const auto dated = [](std::string_view date) {
        return R"({"name":"a","mediaType":"photo","byteCount":1,"sha256":"s","creationDate":)" +
               std::string(date) + "}";
    };
    EXPECT_EQ(
        WireMessage::decode<FileHeader>(asBytes(dated(R"("2024-02-29T23:59:59Z")"))).creationDate,
        utc(2024, 2, 29, 23, 59, 59));
    EXPECT_EQ(WireMessage::decode<FileHeader>(asBytes(dated(R"("2024-03-05T15:07:09+01:00")")))
                  .creationDate,
              utc(2024, 3, 5, 14, 7, 9));
    EXPECT_FALSE(WireMessage::decode<FileHeader>(asBytes(dated("null"))).creationDate);
    for (const char* bad :
         {R"("2024-03-05T14:07:09.500Z")", R"("2024-03-05")", "1709647629",
          R"("2024-03-05 14:07:09Z")", R"("2023-02-29T00:00:00Z")", R"("2024-03-05T24:00:00Z")",
          R"("2024-03-05T14:07:09")", R"("2024-13-05T14:07:09Z")", R"("+2024-03-05T14:07:09Z")"}) {
        EXPECT_NE(decodingError<FileHeader>(dated(bad)).find("creationDate"), std::string::npos)
            << bad;
    }
}

// The acknowledgement here is also an error without a message.
TEST(WireMessage, NullOrMissingOptionalIsAbsentAndUnknownKeysAreIgnored) {
    const auto header = WireMessage::decode<SessionHeader>(
        asBytes(R"({"schemaVersion":1,"direction":"macToPhone","albumName":null})"));
    EXPECT_EQ(header, SessionHeader{});
    EXPECT_EQ(WireMessage::decode<Ack>(asBytes(R"({"version":2,"status":"error","name":"a",)"
                                               R"("extra":{"deep":[1,2,{"x":null}]}})")),
              (Ack{.name = "a", .status = Ack::Status::error}));
    EXPECT_EQ(
        WireMessage::decode<SessionHeader>(
            asBytes(R"({"schemaVersion":2,"direction":"phoneToMac"})")),
        (SessionHeader{.schemaVersion = 2, .direction = SessionHeader::Direction::phoneToMac}));
}

TEST(WireMessage, RejectsMalformedMessagesSayingWhatWasWrong) {
    EXPECT_NE(decodingError<Ack>("[1]").find("not an object"), std::string::npos);
    EXPECT_NE(decodingError<Ack>("").find("not valid JSON"), std::string::npos);
    EXPECT_NE(decodingError<Ack>(R"({"name":"a","status":"ok"} x)").find("not valid JSON"),
              std::string::npos);
    EXPECT_NE(decodingError<Ack>(R"({"name":"a","status":"OK"})")
                  .find(R"("status" has an unknown value "OK")"),
              std::string::npos);
    EXPECT_NE(decodingError<Ack>(R"({"status":"ok"})").find(R"(missing key "name")"),
              std::string::npos);
    EXPECT_NE(decodingError<Ack>(R"({"name":null,"status":"ok"})").find("must not be null"),
              std::string::npos);
    EXPECT_NE(decodingError<Ack>(R"({"name":7,"status":"ok"})").find("must be a string"),
              std::string::npos);
    EXPECT_NE(decodingError<SessionHeader>(R"({"schemaVersion":"1","direction":"macToPhone"})")
                  .find("schemaVersion"),
              std::string::npos);
    EXPECT_NE(
        decodingError<SessionHeader>(R"({"schemaVersion":1,"direction":""})").find("direction"),
        std::string::npos);
    EXPECT_NE(decodingError<SessionHeader>(R"({"schemaVersion":1.0,"direction":"macToPhone"})")
                  .find("must be an integer"),
              std::string::npos);
    EXPECT_NE(decodingError<SessionHeader>(
                  R"({"schemaVersion":9223372036854775808,"direction":"macToPhone"})")
                  .find("signed 64-bit"),
              std::string::npos);
    const auto file = [](std::string_view count) {
        return R"({"name":"a","mediaType":"photo","sha256":"s","byteCount":)" + std::string(count) +
               "}";
    };
    EXPECT_NE(decodingError<FileHeader>(file("-1")).find("byteCount"), std::string::npos);
    EXPECT_NE(decodingError<FileHeader>(file("18446744073709551616")).find("byteCount"),
              std::string::npos);
    EXPECT_NE(decodingError<FileHeader>(file("1e3")).find("byteCount"), std::string::npos);
    EXPECT_NE(
        decodingError<FileHeader>(R"({"name":"a","mediaType":"Photo","byteCount":1,"sha256":"s"})")
            .find("mediaType"),
        std::string::npos);
    EXPECT_NE(
        decodingError<Ack>("{\"name\":\"\xC3\x28\",\"status\":\"ok\"}").find("not valid JSON"),
        std::string::npos);
    EXPECT_NE(decodingError<Ack>(R"({"name":"a","status":"ok","x":44e461})").find("not valid JSON"),
              std::string::npos);
    EXPECT_NE(decodingError<Ack>(std::string(100000, '[') + std::string(100000, ']'))
                  .find("nests deeper"),
              std::string::npos);
}

TEST(WireMessage, TextComparesUnderCanonicalEquivalence) {
    const std::string composed = "Caf\xC3\xA9.jpg";    // é as one code point
    const std::string decomposed = "Cafe\xCC\x81.jpg"; // e + combining acute
    EXPECT_EQ((Ack{.name = composed}), (Ack{.name = decomposed}));
    EXPECT_EQ((SessionHeader{.albumName = composed}), (SessionHeader{.albumName = decomposed}));
    EXPECT_NE((SessionHeader{.albumName = composed}), (SessionHeader{}));
    EXPECT_NE((Ack{.name = "cafe.jpg"}), (Ack{.name = "Cafe.jpg"}));
}

TEST(WireMessage, RefusesToEncodeWhatTheWireCannotCarry) {
    EXPECT_THROW(WireMessage::encode(Ack{.name = "\xFF\xFE"}), WireMessage::EncodingError);
    EXPECT_THROW(WireMessage::encode(FileHeader{.creationDate = utc(10000, 1, 1, 0, 0, 0)}),
                 WireMessage::EncodingError);
}

} // namespace
} // namespace kestrelvane
