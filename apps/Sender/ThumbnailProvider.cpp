#include "Sender/ThumbnailProvider.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "Sender/BackgroundWork.h"

#include <QBuffer>
#include <QGuiApplication>
#include <QImageReader>
#include <QScreen>
#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <libffmpegthumbnailer/videothumbnailerc.h>
#include <libheif/heif.h>
#include <mutex>
#include <set>
#include <string>

namespace kestrelvane {
namespace {

std::string lowerExtension(const std::filesystem::path& file) {
    std::string extension = file.extension().string();
    if (!extension.empty()) {
        extension.erase(0, 1);
    }
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

QImage fitted(const QImage& image, int pixelSize) {
    if (image.isNull() || (image.width() <= pixelSize && image.height() <= pixelSize)) {
        return image;
    }
    return image.scaled(pixelSize, pixelSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
}

/// Decodes straight at the reduced size where the format allows it (JPEG
/// scales while decoding), so the full-size image is never held.
QImage readScaled(QImageReader& reader, int pixelSize) {
    reader.setAutoTransform(true);
    const QSize full = reader.size();
    if (full.isValid() && (full.width() > pixelSize || full.height() > pixelSize)) {
        QSize target = full.scaled(pixelSize, pixelSize, Qt::KeepAspectRatio);
        reader.setScaledSize(target.expandedTo(QSize(1, 1)));
    }
    return fitted(reader.read(), pixelSize);
}

QImage fromImageFile(const std::filesystem::path& file, int pixelSize) {
    QImageReader reader(QString::fromStdString(file.string()));
    return readScaled(reader, pixelSize);
}

/// RAW files carry JPEG previews; the smallest one that still fills the
/// thumbnail is decoded instead of the raw data.
QImage fromRawPreview(const std::filesystem::path& file, int pixelSize) {
    static std::once_flag bmff;
    std::call_once(bmff, [] { Exiv2::enableBMFF(true); });
    try {
        auto image = Exiv2::ImageFactory::open(file.string());
        image->readMetadata();
        Exiv2::PreviewManager previews(*image);
        const Exiv2::PreviewPropertiesList list = previews.getPreviewProperties();
        if (list.empty()) {
            return {};
        }
        // The list is ordered by size, smallest first.
        const auto chosen = std::find_if(list.begin(), list.end(), [pixelSize](const auto& p) {
            return std::max(p.width_, p.height_) >= static_cast<std::uint32_t>(pixelSize);
        });
        const Exiv2::PreviewImage preview =
            previews.getPreviewImage(chosen != list.end() ? *chosen : list.back());
        QByteArray bytes(reinterpret_cast<const char*>(preview.pData()),
                         static_cast<qsizetype>(preview.size()));
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::ReadOnly);
        QImageReader reader(&buffer);
        return readScaled(reader, pixelSize);
    } catch (const Exiv2::Error&) {
        return {};
    }
}

QImage fromHeif(const std::filesystem::path& file, int pixelSize) {
    std::unique_ptr<heif_context, decltype(&heif_context_free)> context(heif_context_alloc(),
                                                                        &heif_context_free);
    if (!context ||
        heif_context_read_from_file(context.get(), file.c_str(), nullptr).code != heif_error_Ok) {
        return {};
    }
    heif_image_handle* primary = nullptr;
    if (heif_context_get_primary_image_handle(context.get(), &primary).code != heif_error_Ok) {
        return {};
    }
    std::unique_ptr<heif_image_handle, decltype(&heif_image_handle_release)> handle(
        primary, &heif_image_handle_release);

    // A stored thumbnail large enough spares decoding the full image.
    heif_item_id thumbnailID = 0;
    if (heif_image_handle_get_list_of_thumbnail_IDs(handle.get(), &thumbnailID, 1) == 1) {
        heif_image_handle* thumbnail = nullptr;
        if (heif_image_handle_get_thumbnail(handle.get(), thumbnailID, &thumbnail).code ==
            heif_error_Ok) {
            if (std::max(heif_image_handle_get_width(thumbnail),
                         heif_image_handle_get_height(thumbnail)) >= pixelSize) {
                handle.reset(thumbnail);
            } else {
                heif_image_handle_release(thumbnail);
            }
        }
    }

    heif_image* decoded = nullptr;
    if (heif_decode_image(handle.get(), &decoded, heif_colorspace_RGB, heif_chroma_interleaved_RGBA,
                          nullptr)
            .code != heif_error_Ok) {
        return {};
    }
    std::unique_ptr<heif_image, decltype(&heif_image_release)> image(decoded, &heif_image_release);
    int stride = 0;
    const std::uint8_t* pixels =
        heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
    const int width = heif_image_get_width(image.get(), heif_channel_interleaved);
    const int height = heif_image_get_height(image.get(), heif_channel_interleaved);
    if (pixels == nullptr || width <= 0 || height <= 0) {
        return {};
    }
    const QImage view(pixels, width, height, stride, QImage::Format_RGBA8888);
    // A deep copy: nothing may refer to libheif's buffer once it is released.
    return fitted(view, pixelSize).copy();
}

QImage fromVideo(const std::filesystem::path& file, int pixelSize) {
    video_thumbnailer* thumbnailer = video_thumbnailer_create();
    if (thumbnailer == nullptr) {
        return {};
    }
    video_thumbnailer_set_log_callback(thumbnailer, [](ThumbnailerLogLevel, const char*) {});
    video_thumbnailer_set_size(thumbnailer, pixelSize, 0);
    thumbnailer->thumbnail_image_type = Png;
    thumbnailer->maintain_aspect_ratio = 1;
    image_data* data = video_thumbnailer_create_image_data();
    QImage result;
    if (video_thumbnailer_generate_thumbnail_to_buffer(thumbnailer, file.c_str(), data) == 0) {
        result =
            fitted(QImage::fromData(data->image_data_ptr, data->image_data_size, "PNG"), pixelSize);
    }
    video_thumbnailer_destroy_image_data(data);
    video_thumbnailer_destroy(thumbnailer);
    return result;
}

} // namespace

ThumbnailProvider::ThumbnailProvider(int maxThreads, QObject* parent)
    : QObject(parent), work_(std::make_unique<BackgroundWork>(std::max(1, maxThreads),
                                                              BackgroundWork::Priority::low)) {
}

ThumbnailProvider::~ThumbnailProvider() {
    cancelAll();
    work_.reset();
}

void ThumbnailProvider::request(const QString& id, const std::filesystem::path& file,
                                int pixelSize) {
    cancel(id);
    auto token = std::make_shared<std::atomic<bool>>(false);
    waiting_.insert(id, token);
    work_->runThenDeliver([this, id, file, pixelSize, token]() -> std::function<void()> {
        if (token->load()) {
            return {};
        }
        QImage image = generate(file, pixelSize);
        if (image.isNull() || token->load()) {
            return {};
        }
        return [this, id, token, image] { finished(id, token, image); };
    });
}

void ThumbnailProvider::finished(const QString& id, const Token& token, const QImage& image) {
    if (token->load()) {
        return;
    }
    if (waiting_.value(id) == token) {
        waiting_.remove(id);
    }
    emit thumbnailReady(id, image);
}

void ThumbnailProvider::cancel(const QString& id) {
    if (const Token token = waiting_.take(id)) {
        token->store(true);
    }
}

void ThumbnailProvider::cancelAll() {
    for (const Token& token : std::as_const(waiting_)) {
        token->store(true);
    }
    waiting_.clear();
}

bool ThumbnailProvider::waitForDone(int msecs) {
    return work_->waitForDone(msecs < 0 ? std::chrono::hours(24)
                                        : std::chrono::milliseconds(msecs));
}

QImage ThumbnailProvider::generate(const std::filesystem::path& file, int pixelSize) {
    static const std::set<std::string> heif{"heic", "heif", "avif"};
    static const std::set<std::string> raw{"dng", "cr2", "cr3", "nef", "arw",
                                           "raf", "orf", "rw2", "pef", "3fr"};
    if (pixelSize <= 0) {
        return {};
    }
    const std::string extension = lowerExtension(file);
    if (heif.count(extension) != 0) {
        return fromHeif(file, pixelSize);
    }
    if (raw.count(extension) != 0) {
        QImage preview = fromRawPreview(file, pixelSize);
        return preview.isNull() ? fromImageFile(file, pixelSize) : preview;
    }
    if (MediaScanner::videoExtensions().contains(extension)) {
        return fromVideo(file, pixelSize);
    }
    return fromImageFile(file, pixelSize);
}

int ThumbnailProvider::pixelSizeFor(int points) {
    const QScreen* screen = QGuiApplication::primaryScreen();
    const qreal ratio = screen != nullptr ? screen->devicePixelRatio() : 2.0;
    return static_cast<int>(std::ceil(points * ratio));
}

} // namespace kestrelvane
