#include "Sender/SenderViewModel.h"

#include "KestrelvaneKit/log/Units.h"
#include "KestrelvaneKit/session/SendRun.h"
#include "KestrelvaneKit/session/UsbPhones.h"
#include "KestrelvaneKit/wire/SessionHeader.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

namespace kestrelvane {

namespace {

QString middleDot() {
    return QStringLiteral(" ") + QChar(0x00B7) + QStringLiteral(" ");
}

/// The running line: "38.2 MB/s · 1:05".
QString progressLine(std::int64_t bytesDone, double elapsedSeconds) {
    return QString::fromStdString(Units::rate(static_cast<double>(bytesDone), elapsedSeconds)) +
           middleDot() + QString::fromStdString(Units::clock(elapsedSeconds));
}

/// The closing line: "1187 MB in 1:05 · avg 18.3 MB/s".
QString summaryLine(std::int64_t bytesDone, double elapsedSeconds) {
    const auto bytes = static_cast<double>(bytesDone);
    return QString::fromStdString(Units::megabytes(bytes, 0) + " in " +
                                  Units::clock(elapsedSeconds)) +
           middleDot() + QString::fromStdString("avg " + Units::rate(bytes, elapsedSeconds));
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

void SenderViewModel::clearQueue() {
    queue_.clear();
    setStatsLine({});
}

void SenderViewModel::send(int fd, bool extended, OnFailure onFailure) {
    // The stream owns the tunnel from here: it is closed with it unless a send takes it.
    startSend(
        queue_.unsentURLs(),
        [stream = UsbPhones::stream(FileDescriptor(fd), extended)] { return stream; },
        std::move(onFailure));
}

void SenderViewModel::startSend(const std::vector<std::filesystem::path>& urls,
                                MakeStream makeStream, OnFailure onFailure) {
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
            delivery_.deliver([this, settled] { applyProgress(settled); });
        }});
    {
        const std::lock_guard lock(runMutex_);
        run_ = run;
        if (stopping_) {
            run->cancel();
        }
    }
    worker_ = std::thread(
        [this, run, makeStream = std::move(makeStream), onFailure = std::move(onFailure)] {
            bool dropped = false;
            try {
                dropped = run->run(makeStream()).brokeOff.has_value();
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

void SenderViewModel::applyProgress(const SendRun::Settled& settled) {
    const Ack& ack = settled.ack;
    if (ack.status == Ack::Status::ok) {
        queue_.setStatus(TransferQueue::Status::saved(), settled.path);
        bytesDone_ += static_cast<std::int64_t>(settled.byteCount);
    } else {
        queue_.setStatus(
            TransferQueue::Status::failed(QString::fromStdString(ack.message.value_or("failed"))),
            settled.path);
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

} // namespace kestrelvane
