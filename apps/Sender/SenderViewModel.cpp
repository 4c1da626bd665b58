#include "Sender/SenderViewModel.h"

#include "KestrelvaneKit/log/Units.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/SendRun.h"
#include "KestrelvaneKit/session/UsbPhones.h"
#include "KestrelvaneKit/wire/SessionHeader.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

namespace kestrelvane {

namespace {

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
        const std::lock_guard lock(runMutex_);
        stopping_ = true;
        if (run_) {
            run_->cancel();
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
    FileDescriptor tunnel(fd); // closed here unless a send takes it
    const std::vector<std::filesystem::path> urls = queue_.unsentURLs();
    if (urls.empty() || isSending_) {
        return;
    }
    auto stream = UsbPhones::stream(std::move(tunnel));
    startSend(
        urls, [stream] { return stream; }, std::move(onFailure));
}

void SenderViewModel::send(const Destination& destination, OnFailure onFailure) {
    // Connected by the run, so that closing the window stops a connection being made.
    start(
        queue_.unsentURLs(),
        [destination](SendRun& run) { return run.run(destination).brokeOff.has_value(); },
        std::move(onFailure));
}

void SenderViewModel::startSend(const std::vector<std::filesystem::path>& urls,
                                MakeStream makeStream, OnFailure onFailure) {
    start(
        urls,
        [makeStream = std::move(makeStream)](SendRun& run) {
            return run.run(makeStream()).brokeOff.has_value();
        },
        std::move(onFailure));
}

void SenderViewModel::start(const std::vector<std::filesystem::path>& urls, Runner runner,
                            OnFailure onFailure) {
    if (urls.empty() || isSending_) {
        return;
    }
    joinWorker(); // the previous send's thread has posted its end already
    setSending(true);
    bytesDone_ = 0;
    queue_.markSending(urls);

    SessionHeader session;
    const std::string album = UnicodeText::trimmed(albumName_.toStdString());
    if (!album.empty()) {
        session.albumName = album;
    }
    start_ = Clock::now();
    setStatsLine({});

    const auto run = std::make_shared<SendRun>(
        urls, session, SendRun::Observer{.settled = [this](const SendRun::Settled& settled) {
            const bool ok = settled.ack.status == Ack::Status::ok;
            const QString message = settled.ack.message
                                        ? QString::fromStdString(*settled.ack.message)
                                        : QStringLiteral("failed");
            delivery_.deliver([this, url = settled.path, ok, message, bytes = settled.byteCount] {
                applyProgress(url, ok, message, bytes);
            });
        }});
    {
        const std::lock_guard lock(runMutex_);
        run_ = run;
        if (stopping_) {
            run->cancel();
        }
    }
    worker_ =
        std::thread([this, run, runner = std::move(runner), onFailure = std::move(onFailure)] {
            bool dropped = false;
            try {
                dropped = runner(*run);
            } catch (const std::exception&) {
                dropped = true; // no connection
            }
            {
                const std::lock_guard lock(runMutex_);
                run_.reset();
            }
            delivery_.deliver([this, dropped, onFailure] { finishSend(dropped, onFailure); });
        });
}

void SenderViewModel::applyProgress(const std::filesystem::path& url, bool ok,
                                    const QString& message, std::uint64_t byteCount) {
    queue_.setStatus(ok ? TransferQueue::Status::saved() : TransferQueue::Status::failed(message),
                     url);
    if (ok) {
        bytesDone_ += static_cast<std::int64_t>(byteCount);
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
    return QString::fromStdString(Units::clock(seconds));
}

QString SenderViewModel::progressLine(std::int64_t bytesDone, double elapsedSeconds) {
    return QString::fromStdString(Units::rate(static_cast<double>(bytesDone), elapsedSeconds)) +
           middleDot() + clock(elapsedSeconds);
}

QString SenderViewModel::summaryLine(std::int64_t bytesDone, double elapsedSeconds) {
    const auto bytes = static_cast<double>(bytesDone);
    return QString::fromStdString(Units::megabytes(bytes, 0) + " in ") + clock(elapsedSeconds) +
           middleDot() + QString::fromStdString("avg " + Units::rate(bytes, elapsedSeconds));
}

} // namespace kestrelvane
