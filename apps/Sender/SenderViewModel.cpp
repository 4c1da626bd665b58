#include "Sender/SenderViewModel.h"

#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "KestrelvaneKit/wire/FrameChannel.h"
#include "KestrelvaneKit/wire/SessionHeader.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

#include <cmath>
#include <set>
#include <unistd.h>

namespace kestrelvane {

namespace {

constexpr double bytesPerMB = 1'048'576.0;

double rateOf(std::int64_t bytes, double elapsedSeconds) {
    return elapsedSeconds > 0 ? static_cast<double>(bytes) / bytesPerMB / elapsedSeconds : 0.0;
}

QString middleDot() {
    return QStringLiteral(" ") + QChar(0x00B7) + QStringLiteral(" ");
}

} // namespace

SenderViewModel::SenderViewModel(QObject* parent) : QObject(parent) {
    // A window that observes only the view model redraws when items change too.
    const auto reannounce = [this] { emit queueChanged(); };
    connect(&queue_, &QAbstractItemModel::rowsInserted, this, reannounce);
    connect(&queue_, &QAbstractItemModel::rowsRemoved, this, reannounce);
    connect(&queue_, &QAbstractItemModel::dataChanged, this, reannounce);
    connect(&queue_, &QAbstractItemModel::modelReset, this, reannounce);
}

SenderViewModel::~SenderViewModel() {
    {
        const std::lock_guard lock(channelMutex_);
        stopping_ = true;
        if (channel_) {
            channel_->cancel();
        }
    }
    joinWorker();
}

void SenderViewModel::joinWorker() {
    if (worker_.joinable()) {
        worker_.join();
    }
}

void SenderViewModel::setAlbumName(const QString& name) {
    if (name != albumName_) {
        albumName_ = name;
        emit albumNameChanged();
    }
}

void SenderViewModel::setSending(bool sending) {
    if (sending != isSending_) {
        isSending_ = sending;
        emit isSendingChanged();
    }
}

void SenderViewModel::setStatsLine(const QString& line) {
    if (line != statsLine_) {
        statsLine_ = line;
        emit statsLineChanged();
    }
}

void SenderViewModel::addURLs(const std::vector<std::filesystem::path>& urls) {
    queue_.add(urls);
}

void SenderViewModel::clearQueue() {
    queue_.clear();
    setStatsLine({});
}

void SenderViewModel::send(int fd, OnFailure onFailure) {
    const std::vector<std::filesystem::path> urls = queue_.unsentURLs();
    if (urls.empty() || isSending_) {
        ::close(fd);
        return;
    }
    startSend(
        urls, [fd] { return std::make_unique<FrameChannel>(std::make_shared<UsbmuxdStream>(fd)); },
        std::move(onFailure));
}

void SenderViewModel::startSend(const std::vector<std::filesystem::path>& urls,
                                MakeChannel makeChannel, OnFailure onFailure) {
    if (urls.empty() || isSending_) {
        return;
    }
    joinWorker(); // the previous send's thread has posted its end already
    setSending(true);
    bytesDone_ = 0;

    std::set<QString> names;
    for (const auto& url : urls) {
        names.insert(QString::fromStdString(url.filename().string()));
    }
    queue_.markSending(names);

    SessionHeader session;
    const std::string album = UnicodeText::trimmed(albumName_.toStdString());
    if (!album.empty()) {
        session.albumName = album;
    }

    // Files of the same name share one entry; the first one's size is kept.
    sizeByName_.clear();
    for (const TransferQueue::Item& item : queue_.items()) {
        sizeByName_.emplace(item.name, item.size);
    }
    start_ = Clock::now();
    setStatsLine({});

    worker_ = std::thread([this, urls, session, makeChannel = std::move(makeChannel),
                           onFailure = std::move(onFailure)] {
        bool dropped = false;
        std::shared_ptr<FrameChannel> channel;
        try {
            channel = makeChannel();
            {
                const std::lock_guard lock(channelMutex_);
                channel_ = channel;
                if (stopping_) {
                    channel->cancel();
                }
            }
            channel->start();
            TransferClient client;
            client.send(urls, *channel, session, [this](const TransferClient::Progress& progress) {
                const bool ok = progress.ack.status == Ack::Status::ok;
                const QString message = progress.ack.message
                                            ? QString::fromStdString(*progress.ack.message)
                                            : QStringLiteral("failed");
                delivery_.deliver([this, name = QString::fromStdString(progress.fileName), ok,
                                   message] { applyProgress(name, ok, message); });
            });
        } catch (const std::exception&) {
            dropped = true;
        }
        // The tunnel is closed on every path, so no reader stays parked on it.
        {
            const std::lock_guard lock(channelMutex_);
            if (channel) {
                channel->cancel();
            }
            channel_.reset();
        }
        delivery_.deliver([this, dropped, onFailure] { finishSend(dropped, onFailure); });
    });
}

void SenderViewModel::applyProgress(const QString& fileName, bool ok, const QString& message) {
    queue_.setStatus(ok ? TransferQueue::Status::saved() : TransferQueue::Status::failed(message),
                     fileName);
    if (ok) {
        const auto found = sizeByName_.find(fileName);
        bytesDone_ += found != sizeByName_.end() ? found->second : 0;
    }
    setStatsLine(progressLine(bytesDone_, elapsedSeconds()));
}

void SenderViewModel::finishSend(bool dropped, const OnFailure& onFailure) {
    queue_.revertSending();
    setSending(false);
    if (bytesDone_ >= 1) {
        setStatsLine(summaryLine(bytesDone_, elapsedSeconds()));
    }
    if (dropped && queue_.unsentCount() > 0 && onFailure) {
        onFailure();
    }
}

double SenderViewModel::elapsedSeconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

QString SenderViewModel::clock(double seconds) {
    const auto whole = static_cast<long long>(std::llround(seconds));
    return QString::asprintf("%lld:%02lld", whole / 60, whole % 60);
}

QString SenderViewModel::progressLine(std::int64_t bytesDone, double elapsedSeconds) {
    return QString::asprintf("%.1f MB/s", rateOf(bytesDone, elapsedSeconds)) + middleDot() +
           clock(elapsedSeconds);
}

QString SenderViewModel::summaryLine(std::int64_t bytesDone, double elapsedSeconds) {
    return QString::asprintf("%.0f MB in ", static_cast<double>(bytesDone) / bytesPerMB) +
           clock(elapsedSeconds) + middleDot() +
           QString::asprintf("avg %.1f MB/s", rateOf(bytesDone, elapsedSeconds));
}

} // namespace kestrelvane
