#include "KestrelvaneKit/wire/WireMessage.h"

#include "support/CaughtError.h"

#include <gtest/gtest.h>

#include <limits>

namespace kestrelvane {
namespace {

using namespace std::chrono;

const Timestamp march5 = Timestamp{sys_days{2024y / 3 / 5} + 14h + 7min + 9s};

std::string encoded(const auto& message) {
    return std::string(asText(WireMessage::encode(message)));
}

template <class T> std::string decodingError(std::string_view json) {
    const auto error = testing::errorOf<WireMessage::DecodingError>(
        [&] { (void)WireMessage::decode<T>(asBytes(json)); });
    return error ? error->what() : "decoded without error";
}

std::string fileHeader(std::string_view byteCount, std::string_view creationDate = "null") {
    return R"({"name":"a","mediaType":"photo","sha256":"s","byteCount":)" + std::string(byteCount) +
           R"(,"creationDate":)" + std::string(creationDate) + "}";
}

TEST(WireMessage, EncodesTheProtocolExamplesExactly) {
    const std::pair<std::string, std::string> examples[] = {
        {encoded(SessionHeader{.albumName = "Trip"}),
         R"({"schemaVersion":1,"direction":"macToPhone","albumName":"Trip"})"},
        {encoded(SessionHeader{}), R"({"schemaVersion":1,"direction":"macToPhone"})"},
        {encoded(
             FileHeader{.name = "e.jpg", .byteCount = 0, .sha256 = "e3b0", .creationDate = march5}),
         R"({"name":"e.jpg","mediaType":"photo","byteCount":0,"sha256":"e3b0","creationDate":"2024-03-05T14:07:09Z"})"},
        {encoded(Ack{.name = "IMG_0001.HEIC", .status = Ack::Status::ok}),
         R"({"name":"IMG_0001.HEIC","status":"ok"})"},
        // "/" is escaped, anything else beyond ASCII written as UTF-8.
        {encoded(Ack{.name = "Ferien/Grüße 🌅.jpg", .status = Ack::Status::error, .message = "a/b"}),
         R"({"name":"Ferien\/Grüße 🌅.jpg","status":"error","message":"a\/b"})"},
        {encoded(Ack{.name = "q\"\\\n"}), R"({"name":"q\"\\\n","status":"ok"})"},
    };
    for (const auto& [actual, expected] : examples) {
        EXPECT_EQ(actual, expected);
    }
}

TEST(WireMessage, RoundTripsKeepEverythingButFractionsOfASecond) {
    const FileHeader video{.name = "Ferien/Grüße.mov",
                           .mediaType = MediaType::video,
                           .byteCount = ~std::uint64_t{0},
                           .sha256 = "x",
                           .creationDate = march5};
    EXPECT_EQ(WireMessage::decode<FileHeader>(WireMessage::encode(video)), video);
    const SessionHeader session{.schemaVersion = std::numeric_limits<std::int64_t>::min(),
                                .direction = SessionHeader::Direction::phoneToMac,
                                .albumName = "Trip"};
    EXPECT_EQ(WireMessage::decode<SessionHeader>(WireMessage::encode(session)), session);

    // Names compare under canonical equivalence; dates to the microsecond.
    EXPECT_EQ((Ack{.name = "Caf\u00e9.jpg"}), (Ack{.name = "Cafe\u0301.jpg"}));
    EXPECT_NE((Ack{.name = "cafe.jpg"}), (Ack{.name = "Cafe.jpg"}));
    const FileHeader header{.name = "a.jpg", .sha256 = "s", .creationDate = march5 + 750ms};
    const FileHeader decoded = WireMessage::decode<FileHeader>(WireMessage::encode(header));
    EXPECT_EQ(decoded.creationDate, march5);
    EXPECT_NE(decoded, header);
    // Before 1970 the fraction is dropped toward the past as well.
    EXPECT_EQ(Rfc3339::format(Timestamp{sys_days{1970y / 1 / 1}} - 500ms), "1969-12-31T23:59:59Z");
}

TEST(WireMessage, ReadsWholeSecondDatesAndTakesNullOrMissingOptionalsAsAbsent) {
    EXPECT_EQ(
        WireMessage::decode<FileHeader>(asBytes(fileHeader("1", R"("2024-03-05T15:07:09+01:00")")))
            .creationDate,
        march5);
    EXPECT_FALSE(WireMessage::decode<FileHeader>(asBytes(fileHeader("1"))).creationDate);
    EXPECT_EQ(WireMessage::decode<SessionHeader>(
                  asBytes(R"({"schemaVersion":1,"direction":"macToPhone","albumName":null})")),
              SessionHeader{});
    // Unknown keys are ignored; the acknowledgement is an error without a message.
    EXPECT_EQ(WireMessage::decode<Ack>(asBytes(R"({"version":2,"status":"error","name":"a",)"
                                               R"("extra":{"deep":[1,2,{"x":null}]}})")),
              (Ack{.name = "a", .status = Ack::Status::error}));
}

TEST(WireMessage, RejectsMalformedMessagesSayingWhatWasWrong) {
    const auto ack = decodingError<Ack>;
    const auto session = [](std::string_view version, std::string_view direction = "macToPhone") {
        return decodingError<SessionHeader>(R"({"schemaVersion":)" + std::string(version) +
                                            R"(,"direction":")" + std::string(direction) + "\"}");
    };
    const auto file = [](std::string_view count, std::string_view date = "null") {
        return decodingError<FileHeader>(fileHeader(count, date));
    };
    const std::pair<std::string, std::string> rejected[] = {
        {ack("[1]"), "not an object"},
        {ack(""), "not valid JSON"},
        {ack(R"({"name":"a","status":"ok"} x)"), "not valid JSON"},
        {ack("{\"name\":\"\xC3\x28\",\"status\":\"ok\"}"), "not valid JSON"},
        {ack(R"({"name":"a","status":"ok","x":44e461})"), "not valid JSON"},
        {ack(std::string(100000, '[') + std::string(100000, ']')), "nests deeper"},
        {ack(R"({"name":"a","status":"OK"})"), R"("status" has an unknown value "OK")"},
        {ack(R"({"status":"ok"})"), R"(missing key "name")"},
        {ack(R"({"name":null,"status":"ok"})"), "must not be null"},
        {ack(R"({"name":7,"status":"ok"})"), "must be a string"},
        {session(R"("1")"), "schemaVersion"},
        {session("1.0"), "must be an integer"},
        {session("9223372036854775808"), "signed 64-bit"},
        {session("1", ""), "direction"},
        {file("-1"), "byteCount"},
        {file("18446744073709551616"), "byteCount"},
        {file("1e3"), "byteCount"},
        {decodingError<FileHeader>(
             R"({"name":"a","mediaType":"Photo","byteCount":1,"sha256":"s"})"),
         "mediaType"},
    };
    for (const auto& [error, says] : rejected) {
        EXPECT_NE(error.find(says), std::string::npos) << error;
    }
    for (const char* date :
         {R"("2024-03-05T14:07:09.500Z")", R"("2024-03-05")", "1709647629",
          R"("2024-03-05 14:07:09Z")", R"("2023-02-29T00:00:00Z")", R"("2024-03-05T24:00:00Z")",
          R"("2024-03-05T14:07:09")", R"("2024-13-05T14:07:09Z")", R"("+2024-03-05T14:07:09Z")"}) {
        EXPECT_NE(file("1", date).find("creationDate"), std::string::npos) << date;
    }
}

} // namespace
} // namespace kestrelvane
