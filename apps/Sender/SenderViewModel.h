#pragma once

#include "KestrelvaneKit/session/SendRun.h"
#include "Sender/BackgroundWork.h"
#include "Sender/TransferQueue.h"

#include <QObject>
#include <QString>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrelvane {

class KestrelvaneStream;

/// The window's model: the queue, the album name, whether a send runs and the
/// statistics line. A send runs on a worker thread; everything it reports is
/// applied here, on the GUI thread, in the order it was reported.
class SenderViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString albumName READ albumName WRITE setAlbumName NOTIFY albumNameChanged)
    Q_PROPERTY(bool isSending READ isSending NOTIFY isSendingChanged)
    Q_PROPERTY(QString statsLine READ statsLine NOTIFY statsLineChanged)
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

signals:
    void albumNameChanged();
    void isSendingChanged();
    void statsLineChanged();
    /// The queue changed in any way (items added, removed or updated).
    void queueChanged();

private:
    using Clock = std::chrono::steady_clock;

    void applyProgress(const SendRun::Settled& settled);
    void finishSend(bool dropped, const OnFailure& onFailure);
    void setSending(bool sending);
    void setStatsLine(const QString& line);
    double elapsedSeconds() const;
    void joinWorker();

    TransferQueue queue_;
    QString albumName_;
    bool isSending_ = false;
    QString statsLine_;
    std::int64_t bytesDone_ = 0;
    Clock::time_point start_{};

    std::mutex runMutex_; // guards run_ and stopping_ (worker and destructor)
    std::shared_ptr<SendRun> run_;
    bool stopping_ = false;
    std::thread worker_;
    BackgroundWork delivery_{0}; // the worker's reports, brought to the GUI thread
};

} // namespace kestrelvane
