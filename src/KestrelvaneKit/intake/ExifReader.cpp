#include "KestrelvaneKit/intake/ExifReader.h"

#include <exiv2/exiv2.hpp>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <cstdint>
#include <libheif/heif.h>
#include <memory>
#include <mutex>
#include <vector>

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

/// The EXIF block of a HEIF file's primary image, found through libheif's
/// item tables. exiv2 0.27 cannot follow every item layout (grids of small
/// pictures, the locations some encoders write); libheif reads the boxes
/// only, never the coded pictures.
Exiv2::ExifData heifExif(const std::filesystem::path& file) {
    Exiv2::ExifData exif;
    const std::unique_ptr<heif_context, void (*)(heif_context*)> context(heif_context_alloc(),
                                                                         heif_context_free);
    if (!context ||
        heif_context_read_from_file(context.get(), file.c_str(), nullptr).code != heif_error_Ok) {
        return exif;
    }
    heif_image_handle* primary = nullptr;
    if (heif_context_get_primary_image_handle(context.get(), &primary).code != heif_error_Ok) {
        return exif;
    }
    const std::unique_ptr<heif_image_handle, void (*)(const heif_image_handle*)> handle(
        primary, heif_image_handle_release);
    heif_item_id id = 0;
    if (heif_image_handle_get_list_of_metadata_block_IDs(handle.get(), "Exif", &id, 1) != 1) {
        return exif;
    }
    std::vector<std::uint8_t> block(heif_image_handle_get_metadata_size(handle.get(), id));
    if (block.size() < 4 ||
        heif_image_handle_get_metadata(handle.get(), id, block.data()).code != heif_error_Ok) {
        return exif;
    }
    // The block opens with the big-endian offset of the TIFF header after it.
    const std::uint32_t offset = (std::uint32_t{block[0]} << 24) | (std::uint32_t{block[1]} << 16) |
                                 (std::uint32_t{block[2]} << 8) | std::uint32_t{block[3]};
    if (offset > block.size() - 4) {
        return exif;
    }
    const std::uint8_t* tiff = block.data() + 4 + offset;
    Exiv2::ExifParser::decode(exif, tiff, static_cast<std::uint32_t>(block.size() - 4 - offset));
    return exif;
}

} // namespace

std::optional<Timestamp> captureDate(const std::filesystem::path& path) noexcept {
    try {
        setUpExiv2Once();
        // exiv2 reads "-" as standard input and "http://", "data://" and the
        // like as remote or inline data; a relative path must stay a file name.
        const std::filesystem::path file = path.is_absolute() ? path : "." / path;
        const auto image = Exiv2::ImageFactory::open(file.string(), false);
        if (image.get() == nullptr) {
            return std::nullopt;
        }
        image->readMetadata();
        Exiv2::ExifData exif = image->exifData();
        if (exif.empty() && image->imageType() == Exiv2::ImageType::bmff) {
            exif = heifExif(file);
        }
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
