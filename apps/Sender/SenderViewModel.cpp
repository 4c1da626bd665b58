#include "Sender/SenderViewModel.h"

#include "KestrelvaneKit/log/Units.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/SendRun.h"
#include "KestrelvaneKit/session/UsbPhones.h"
#include "KestrelvaneKit/wire/SessionHeader.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

#include <algorithm>
#include <unordered_map>

namespace kestrelvane {

namespace {

QString middleDot() {
    return QStringLiteral(" ") + QChar(0x00B7) + QStringLiteral(" ");
}

/// The running line: "38.2 MB/s · 1:05".
QString rateLine(std::int64_t bytesDone, double elapsedSeconds) {
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

/// "412 of 1187 MB · 0:21 left"; without the time while nothing has crossed.
QString batchLine(std::int64_t done, std::int64_t total, std::uint64_t crossed,
                  double elapsedSeconds) {
    QString line =
        QString::fromStdString(Units::fixed(static_cast<double>(done) / Units::bytesPerMB, 0) +
                               " of " + Units::megabytes(static_cast<double>(total), 0));
    if (crossed > 0 && elapsedSeconds > 0 && total > done) {
        const double rate = static_cast<double>(crossed) / elapsedSeconds;
        line += middleDot() +
                QString::fromStdString(Units::clock(static_cast<double>(total - done) / rate)) +
                QStringLiteral(" left");
    }
    return line;
}

} // namespace

SenderViewModel::SenderViewModel(QObject* parent) : QObject(parent) {
    // Ten times a second is smooth to the eye and costs the GUI thread nothing.
    progressTimer_.setInterval(100);
    connect(&progressTimer_, &QTimer::timeout, this, &SenderViewModel::showProgress);
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

void SenderViewModel::setProgressLine(const QString& line) {
    if (line != progressLine_) {
        progressLine_ = line;
        emit progressLineChanged();
    }
}

void SenderViewModel::setBreakLine(const QString& line) {
    if (line != breakLine_) {
        breakLine_ = line;
        emit breakLineChanged();
    }
}

void SenderViewModel::clearQueue() {
    queue_.clear();
    setStatsLine({});
    setBreakLine({});
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
    runSend(
        urls, [makeStream = std::move(makeStream)](SendRun& run) { return run.run(makeStream()); },
        std::move(onFailure));
}

void SenderViewModel::sendTo(const Destination& destination, const std::optional<Trust>& trust) {
    runSend(queue_.unsentURLs(),
            [destination, trust](SendRun& run) { return run.run(destination, trust); }, {});
}

void SenderViewModel::runSend(const std::vector<std::filesystem::path>& urls, Runner runner,
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
    setBreakLine({});

    batch_ = urls;
    std::unordered_map<std::string, std::int64_t> sizeOf;
    for (const auto& item : queue_.items()) {
        sizeOf.emplace(item.url.native(), item.size);
    }
    batchSizes_.clear();
    batchBytes_ = 0;
    for (const auto& url : urls) {
        const auto found = sizeOf.find(url.native());
        batchSizes_.push_back(found == sizeOf.end() ? 0 : found->second);
        batchBytes_ += batchSizes_.back();
    }
    settled_.assign(urls.size(), false);
    settledBytes_ = 0;
    savedInSend_ = 0;
    fullUpTo_ = 0;
    passedBytes_ = 0;
    wireBytes_ = 0;
    {
        const std::lock_guard lock(writingMutex_);
        writing_.reset();
    }
    showProgress();
    progressTimer_.start();

    const auto run = std::make_shared<SendRun>(
        urls, session,
        SendRun::Observer{
            .settled =
                [this](const SendRun::Settled& settled) {
                    delivery_.deliver([this, settled] { applyProgress(settled); });
                },
            .sent = [this](std::uint64_t bytes) { wireBytes_ += bytes; },
            .writing =
                [this](std::size_t index, std::uint64_t from, std::uint64_t byteCount) {
                    const std::lock_guard lock(writingMutex_);
                    writing_ = Writing{index, from, byteCount, wireBytes_.load()};
                },
        });
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
            std::optional<std::string> unreachable;
            try {
                dropped = runner(*run).brokeOff.has_value();
            } catch (const std::exception& error) {
                // The run reports the transfer's own failures; what is thrown
                // came before anything was sent (no connection, no key).
                dropped = true;
                unreachable = error.what();
            }
            {
                const std::lock_guard lock(runMutex_);
                run_.reset();
            }
            delivery_.deliver([this, dropped, unreachable, onFailure] {
                finishSend(dropped, unreachable, onFailure);
            });
        });
}

void SenderViewModel::applyProgress(const SendRun::Settled& settled) {
    const Ack& ack = settled.ack;
    if (settled.index < settled_.size() && !settled_[settled.index]) {
        settled_[settled.index] = true;
        const std::int64_t size = batchSizes_[settled.index];
        if (settled.index < fullUpTo_) {
            passedBytes_ -= size; // counted whole when the writer passed it
        }
        // A file the receiver refused is no longer part of what is to come.
        if (ack.status == Ack::Status::ok) {
            settledBytes_ += size;
        } else {
            batchBytes_ -= size;
        }
    }
    if (ack.status == Ack::Status::ok) {
        ++savedInSend_;
        queue_.setStatus(TransferQueue::Status::saved(), settled.path);
        bytesDone_ += static_cast<std::int64_t>(settled.byteCount);
    } else {
        queue_.setStatus(
            TransferQueue::Status::failed(QString::fromStdString(ack.message.value_or("failed"))),
            settled.path);
    }
    setStatsLine(rateLine(bytesDone_, elapsedSeconds()));
    showProgress();
}

void SenderViewModel::showProgress() {
    std::optional<Writing> writing;
    {
        const std::lock_guard lock(writingMutex_);
        writing = writing_;
    }
    const std::uint64_t wire = wireBytes_.load();
    std::int64_t done = settledBytes_;
    // Files the writer has gone past are on the wire whole, acknowledged or not.
    for (; writing && fullUpTo_ < writing->index && fullUpTo_ < batch_.size(); ++fullUpTo_) {
        if (!settled_[fullUpTo_]) {
            queue_.setBytesDone(batch_[fullUpTo_], batchSizes_[fullUpTo_]);
            passedBytes_ += batchSizes_[fullUpTo_];
        }
    }
    done += passedBytes_;
    if (writing && writing->index < batch_.size() && !settled_[writing->index]) {
        const auto fileDone = static_cast<std::int64_t>(
            writing->from + std::min(wire - writing->wireAtStart, writing->byteCount));
        queue_.setBytesDone(batch_[writing->index], fileDone);
        done += fileDone;
    }
    setProgressLine(batchLine(std::min(done, batchBytes_), batchBytes_, wire, elapsedSeconds()));
}

void SenderViewModel::finishSend(bool dropped, const std::optional<std::string>& unreachable,
                                 const OnFailure& onFailure) {
    progressTimer_.stop();
    setProgressLine({});
    queue_.revertSending();
    setSending(false);
    if (bytesDone_ >= 1) {
        setStatsLine(summaryLine(bytesDone_, elapsedSeconds()));
    }
    const int unsent = queue_.unsentCount();
    // Files of the batch left unsettled went back to the queue: the peer went
    // away, whether or not the writer had finished.
    const bool cut =
        dropped || std::find(settled_.begin(), settled_.end(), false) != settled_.end();
    if (unreachable && unsent > 0) {
        QString why = QString::fromStdString(*unreachable);
        if (!why.isEmpty()) {
            why[0] = why[0].toUpper();
        }
        setBreakLine(why + QStringLiteral(". Nothing was sent."));
    } else if (cut && unsent > 0) {
        const int saved = queue_.savedCount();
        setBreakLine(QStringLiteral("%1 went away: %2 of %3 saved. Resume sends the other %4.")
                         .arg(peerName_)
                         .arg(saved)
                         .arg(saved + unsent)
                         .arg(unsent));
    }
    if (dropped && unsent > 0 && onFailure) {
        onFailure();
    }
    emit sendEnded(savedInSend_, static_cast<int>(batch_.size()) - savedInSend_, elapsedSeconds());
}

double SenderViewModel::elapsedSeconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

} // namespace kestrelvane
