#include "KestrelvaneKit/intake/ExifReader.h"

#include <exiv2/exiv2.hpp>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <memory>
#include <mutex>

namespace kestrelvane::ExifReader {
namespace {

void lockXmpToolkit(void* mutex, bool lock) {
    if (lock) {
        static_cast<std::mutex*>(mutex)->lock();
    } else {
        static_cast<std::mutex*>(mutex)->unlock();
    }
}

void setUpExiv2Once() {
    static std::once_flag once;
    std::call_once(once, [] {
        // The XMP toolkit behind exiv2 keeps global state; without a lock,
        // two threads decoding XMP packets at once corrupt it.
        static std::mutex xmpMutex;
        Exiv2::XmpParser::initialize(lockXmpToolkit, &xmpMutex);
        // exiv2 prints warnings for every odd file unless told not to.
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
        Exiv2::LogMsg::setHandler(nullptr);
#ifdef EXV_ENABLE_BMFF
        Exiv2::enableBMFF(true); // HEIC, HEIF and CR3
#endif
    });
}

/// The one parser, built on first use with the time zone of that moment.
/// ICU formats are not safe to share between threads, so each thread parses
/// with its own clone of it.
const icu::SimpleDateFormat* prototype() {
    static const std::unique_ptr<icu::SimpleDateFormat> format = [] {
        UErrorCode status = U_ZERO_ERROR;
        auto created = std::make_unique<icu::SimpleDateFormat>(
            icu::UnicodeString("yyyy:MM:dd HH:mm:ss"), icu::Locale("en_US_POSIX"), status);
        if (U_FAILURE(status)) {
            return std::unique_ptr<icu::SimpleDateFormat>();
        }
        created->setTimeZone(*std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault()));
        created->setLenient(false);
        return created;
    }();
    return format.get();
}

std::optional<Timestamp> parseExifDate(const std::string& text) {
    const icu::SimpleDateFormat* shared = prototype();
    if (shared == nullptr) {
        return std::nullopt;
    }
    thread_local std::unique_ptr<icu::SimpleDateFormat> format(shared->clone());
    if (!format) {
        return std::nullopt;
    }
    const icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(text);
    icu::ParsePosition position(0);
    const UDate date = format->parse(unicode, position);
    // The whole text must be the date; a prefix that happens to parse is not.
    if (position.getErrorIndex() >= 0 || position.getIndex() != unicode.length()) {
        return std::nullopt;
    }
    const auto microseconds = static_cast<std::int64_t>(date * 1000.0);
    return Timestamp{std::chrono::microseconds{microseconds}};
}

} // namespace

std::optional<Timestamp> captureDate(const std::filesystem::path& path) noexcept {
    try {
        setUpExiv2Once();
        const auto image = Exiv2::ImageFactory::open(path.string());
        if (image.get() == nullptr) {
            return std::nullopt;
        }
        image->readMetadata();
        const Exiv2::ExifData& exif = image->exifData();
        const auto found = exif.findKey(Exiv2::ExifKey("Exif.Photo.DateTimeOriginal"));
        if (found == exif.end() || found->typeId() != Exiv2::asciiString) {
            return std::nullopt;
        }
        std::string text = found->toString();
        // EXIF strings are NUL-terminated inside their field.
        text.erase(text.find_last_not_of(std::string("\0", 1)) + 1);
        return parseExifDate(text);
    } catch (...) {
        return std::nullopt;
    }
}

} // namespace kestrelvane::ExifReader
