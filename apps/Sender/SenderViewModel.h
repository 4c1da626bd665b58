#pragma once

#include "KestrelvaneKit/session/SendRun.h"
#include "Sender/BackgroundWork.h"
#include "Sender/TransferQueue.h"

#include <QObject>
#include <QString>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace kestrelvane {

class KestrelvaneStream;
struct Destination;
struct Trust;

/// The window's model: the queue, the album name, whether a send runs and the
/// statistics line. A send runs on a worker thread; everything it reports is
/// applied here, on the GUI thread, in the order it was reported.
class SenderViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString albumName READ albumName WRITE setAlbumName NOTIFY albumNameChanged)
    Q_PROPERTY(bool isSending READ isSending NOTIFY isSendingChanged)
    Q_PROPERTY(QString statsLine READ statsLine NOTIFY statsLineChanged)
    Q_PROPERTY(QString progressLine READ progressLine NOTIFY progressLineChanged)
    Q_PROPERTY(QString breakLine READ breakLine NOTIFY breakLineChanged)
public:
    /// Opens the connection a send goes over; may throw (a ConnectError).
    using MakeStream = std::function<std::shared_ptr<KestrelvaneStream>()>;
    using OnFailure = std::function<void()>;

    explicit SenderViewModel(QObject* parent = nullptr);
    /// Ends a send still running by closing its connection, and waits for it.
    ~SenderViewModel() override;

    TransferQueue& queue() noexcept { return queue_; }
    QString albumName() const { return albumName_; }
    void setAlbumName(const QString& name);
    bool isSending() const noexcept { return isSending_; }
    QString statsLine() const { return statsLine_; }
    /// While a send runs: "412 of 1187 MB · 0:21 left", the batch's bytes the
    /// receiver has, held ones included, and the time left at the rate of the
    /// bytes crossing; empty otherwise.
    QString progressLine() const { return progressLine_; }
    /// After a send that broke off with files unsent: what happened and what
    /// Resume will do; empty from the next send (or clear) on.
    QString breakLine() const { return breakLine_; }
    /// Who a broken send lost, for breakLine(): "The iPhone" unless set.
    void setPeerName(const QString& name) { peerName_ = name; }
    /// Bytes of the files acknowledged as saved during the current send.
    std::int64_t bytesDone() const noexcept { return bytesDone_; }

    void clearQueue();

    /// Sends every unsent item over the open usbmuxd tunnel `fd`, which this
    /// call takes over (it is closed even when there is nothing to send);
    /// `extended` when it reaches a receiver that speaks the resume
    /// extension. `onFailure` runs if the transfer breaks off with files
    /// still unsent.
    void send(int fd, bool extended, OnFailure onFailure);
    /// Sends `urls` over the stream `makeStream` gives, on a worker thread.
    void startSend(const std::vector<std::filesystem::path>& urls, MakeStream makeStream,
                   OnFailure onFailure);
    /// Sends every unsent item to the receiver at `destination` (with
    /// `trust`, privately: see Destination::connect), connecting on the
    /// worker thread. When no connection is made, breakLine() says why.
    void sendTo(const Destination& destination, const std::optional<Trust>& trust);

signals:
    void albumNameChanged();
    void isSendingChanged();
    void statsLineChanged();
    void progressLineChanged();
    void breakLineChanged();
    /// A send has ended: of its files, how many were saved and how many not,
    /// and how long it ran.
    void sendEnded(int saved, int notSaved, double seconds);
    /// The queue changed in any way (items added, removed or updated).
    void queueChanged();

private:
    using Clock = std::chrono::steady_clock;

    void applyProgress(const SendRun::Settled& settled);
    /// Runs the send on the worker thread: connects if it must, then sends.
    using Runner = std::function<SendRun::Outcome(SendRun&)>;
    void runSend(const std::vector<std::filesystem::path>& urls, Runner runner,
                 OnFailure onFailure);
    void finishSend(bool dropped, const std::optional<std::string>& unreachable,
                    const OnFailure& onFailure);
    void setSending(bool sending);
    void setStatsLine(const QString& line);
    void setProgressLine(const QString& line);
    void setBreakLine(const QString& line);
    /// Reads what the send's threads counted and shows it: the bar of the
    /// file on its way and the progress line. On a timer, never per write.
    void showProgress();
    double elapsedSeconds() const;
    void joinWorker();

    TransferQueue queue_;
    QString albumName_;
    bool isSending_ = false;
    QString statsLine_;
    std::int64_t bytesDone_ = 0;
    Clock::time_point start_{};
    QString progressLine_;
    QString breakLine_;
    QString peerName_ = QStringLiteral("The iPhone");

    // The send's files, their sizes, which of them are settled and the bytes
    // of those: on the GUI thread only.
    std::vector<std::filesystem::path> batch_;
    std::vector<std::int64_t> batchSizes_;
    std::int64_t batchBytes_ = 0;
    std::vector<bool> settled_;
    std::int64_t settledBytes_ = 0;
    int savedInSend_ = 0;
    // Files before this one the writer has passed; those of them not yet
    // settled count whole in passedBytes_.
    std::size_t fullUpTo_ = 0;
    std::int64_t passedBytes_ = 0;
    // Counted by the send's writing thread: the bytes on the wire, and the
    // file on its way (its position, where its bytes start, how many there
    // are, and the wire's count when they began).
    struct Writing {
        std::size_t index = 0;
        std::uint64_t from = 0;
        std::uint64_t byteCount = 0;
        std::uint64_t wireAtStart = 0;
    };
    std::atomic<std::uint64_t> wireBytes_{0};
    std::mutex writingMutex_;
    std::optional<Writing> writing_;
    QTimer progressTimer_;

    std::mutex runMutex_; // guards run_ and stopping_ (worker and destructor)
    std::shared_ptr<SendRun> run_;
    bool stopping_ = false;
    std::thread worker_;
    BackgroundWork delivery_{0}; // the worker's reports, brought to the GUI thread
};

} // namespace kestrelvane
