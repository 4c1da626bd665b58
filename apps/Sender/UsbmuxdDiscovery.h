#pragma once

#include "KestrelvaneKit/session/UsbPhones.h"

#include <QObject>
#include <QTimer>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace kestrelvane {

class BackgroundWork;

/// Watches usbmuxd for a phone whose receiver is listening and holds an open
/// tunnel to it, ready for the next send. Lives on the GUI thread; each pass
/// talks to usbmuxd on a worker and applies the answer back here, checking
/// the state again first, since a hand-over, a pause or a stop may have come
/// in between. The next pass starts one interval after the previous one ended.
class UsbmuxdDiscovery : public QObject {
    Q_OBJECT
public:
    struct State {
        enum class Kind { noDevice, appNotListening, ready };

        static State noDevice() { return {Kind::noDevice, 0, -1}; }
        static State appNotListening(std::int64_t deviceID) {
            return {Kind::appNotListening, deviceID, -1};
        }
        static State ready(std::int64_t deviceID, int fileDescriptor, bool extended = false) {
            return {Kind::ready, deviceID, fileDescriptor, extended};
        }

        Kind kind = Kind::noDevice;
        std::int64_t deviceID = 0; ///< usbmuxd's device number; 0 for noDevice
        int fileDescriptor = -1;   ///< the held tunnel, for ready
        bool extended = false;     ///< it reaches a receiver that speaks the resume extension

        friend bool operator==(const State&, const State&) = default;
    };

    static constexpr std::chrono::milliseconds defaultInterval{1000};

    explicit UsbmuxdDiscovery(UsbPhones::Address address,
                              std::chrono::milliseconds interval = defaultInterval,
                              QObject* parent = nullptr);
    /// Stops, closes a held tunnel and waits for a usbmuxd call in progress.
    ~UsbmuxdDiscovery() override;

    State state() const noexcept { return state_; }
    /// While paused, passes leave the state alone and make no connection.
    void setPaused(bool paused) noexcept { paused_ = paused; }
    bool isRunning() const noexcept { return running_; }

    /// Starts polling with a pass right away; does nothing while polling.
    void start();
    /// Ends polling, closes a held tunnel and returns to noDevice.
    void stop();
    /// Hands the held tunnel to the caller, who then owns it; nothing unless ready.
    std::optional<int> takeReadyTunnel();
    /// Closes a held tunnel and marks its phone as not listening (after a failed send).
    void dropTunnel();

signals:
    void stateChanged(const kestrelvane::UsbmuxdDiscovery::State& state);
    /// A pass has ended (also a skipped one).
    void passFinished();

private:
    void tick();
    void listed(std::uint64_t generation,
                const std::optional<std::vector<UsbPhones::Phone>>& phones);
    /// `probe` is none when usbmuxd failed; an unused tunnel closes with it.
    void connected(std::uint64_t generation, std::int64_t deviceID,
                   const std::shared_ptr<UsbPhones::Probe>& probe, bool extended);
    void endPass(std::uint64_t generation);
    /// Holds `tunnel` (that of a ready state) from now on; closes the one held before.
    void setState(const State& state, FileDescriptor tunnel = {});

    State state_ = State::noDevice();
    FileDescriptor tunnel_; // state_.fileDescriptor, owned
    bool paused_ = false;
    bool running_ = false;
    std::uint64_t generation_ = 0; // a stop makes passes still under way stale
    const std::chrono::milliseconds interval_;
    std::shared_ptr<UsbPhones> phones_;
    std::unique_ptr<BackgroundWork> worker_; // one thread: usbmuxd calls in order
    QTimer timer_;
};

} // namespace kestrelvane

Q_DECLARE_METATYPE(kestrelvane::UsbmuxdDiscovery::State)
