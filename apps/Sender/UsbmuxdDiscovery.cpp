#include "Sender/UsbmuxdDiscovery.h"

#include "Sender/BackgroundWork.h"

#include <unistd.h>

namespace kestrelvane {

namespace {

/// The receiving application's TCP port on the phone.
constexpr std::uint16_t receiverPort = 9876;

} // namespace

struct UsbmuxdDiscovery::Tunnel {
    explicit Tunnel(int descriptor) : fd(descriptor) {}
    ~Tunnel() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Tunnel(const Tunnel&) = delete;
    Tunnel& operator=(const Tunnel&) = delete;
    int take() { return std::exchange(fd, -1); }

    int fd;
};

UsbmuxdDiscovery::UsbmuxdDiscovery(QObject* parent)
    : UsbmuxdDiscovery(UsbmuxdClient::SocketAddress::fromEnvironment(), defaultInterval, parent) {
}

UsbmuxdDiscovery::UsbmuxdDiscovery(UsbmuxdClient::SocketAddress address,
                                   std::chrono::milliseconds interval, QObject* parent)
    : QObject(parent), interval_(interval),
      client_(std::make_shared<UsbmuxdClient>(std::move(address))),
      worker_(std::make_unique<BackgroundWork>(1)) {
    timer_.setSingleShot(true);
    connect(&timer_, &QTimer::timeout, this, &UsbmuxdDiscovery::tick);
}

UsbmuxdDiscovery::~UsbmuxdDiscovery() {
    stop();
    worker_.reset();
    // Answers still queued for this object are dropped with it; their Tunnel
    // holders close any descriptor they carry.
}

void UsbmuxdDiscovery::setPaused(bool paused) {
    if (paused != paused_) {
        paused_ = paused;
        emit pausedChanged();
    }
}

void UsbmuxdDiscovery::start() {
    if (running_) {
        return;
    }
    running_ = true;
    tick();
}

void UsbmuxdDiscovery::stop() {
    running_ = false;
    ++generation_;
    timer_.stop();
    setState(State::noDevice());
}

std::optional<int> UsbmuxdDiscovery::takeReadyTunnel() {
    if (state_.kind != State::Kind::ready) {
        return std::nullopt;
    }
    const int fd = state_.fileDescriptor;
    state_ = State::appNotListening(state_.deviceID); // handed out, not closed
    emit stateChanged(state_);
    return fd;
}

void UsbmuxdDiscovery::dropTunnel() {
    if (state_.kind == State::Kind::ready) {
        setState(State::appNotListening(state_.deviceID));
    }
}

void UsbmuxdDiscovery::setState(const State& state) {
    if (state == state_) {
        return;
    }
    if (state_.kind == State::Kind::ready) {
        ::close(state_.fileDescriptor);
    }
    state_ = state;
    emit stateChanged(state_);
}

void UsbmuxdDiscovery::tick() {
    if (!running_) {
        return;
    }
    const std::uint64_t generation = generation_;
    if (paused_) {
        endPass(generation);
        return;
    }
    worker_->runThenDeliver([this, client = client_, generation]() -> std::function<void()> {
        std::optional<std::vector<UsbmuxdClient::Device>> devices;
        try {
            devices = client->listDevices();
        } catch (const std::exception&) {
            // Unreachable or confused daemon: shows as no device.
        }
        return [this, generation, devices] { listed(generation, devices); };
    });
}

void UsbmuxdDiscovery::listed(std::uint64_t generation,
                              const std::optional<std::vector<UsbmuxdClient::Device>>& devices) {
    if (generation != generation_) {
        return;
    }
    if (paused_) {
        endPass(generation);
        return;
    }
    if (!devices || devices->empty()) {
        setState(State::noDevice());
        endPass(generation);
        return;
    }
    const std::int64_t deviceID = devices->front().id;
    if (state_.kind == State::Kind::ready && state_.deviceID == deviceID) {
        endPass(generation); // the held tunnel is not probed again
        return;
    }
    worker_->runThenDeliver(
        [this, client = client_, generation, deviceID]() -> std::function<void()> {
            std::optional<UsbmuxdClient::ConnectResult> result;
            try {
                result = client->connect(deviceID, receiverPort);
            } catch (const std::exception&) {
            }
            auto tunnel = std::make_shared<Tunnel>(
                result && result->kind == UsbmuxdClient::ConnectResult::Kind::tunneled
                    ? result->fileDescriptor
                    : -1);
            return [this, generation, deviceID, result, tunnel] {
                connected(generation, deviceID, result, tunnel);
            };
        });
}

void UsbmuxdDiscovery::connected(std::uint64_t generation, std::int64_t deviceID,
                                 const std::optional<UsbmuxdClient::ConnectResult>& result,
                                 const std::shared_ptr<Tunnel>& tunnel) {
    // A stop or a pause in the meantime wins; the Tunnel closes an unused descriptor.
    if (generation != generation_) {
        return;
    }
    if (paused_) {
        endPass(generation);
        return;
    }
    using Kind = UsbmuxdClient::ConnectResult::Kind;
    if (!result || result->kind == Kind::badDevice) {
        setState(State::noDevice());
    } else if (result->kind == Kind::tunneled) {
        setState(State::ready(deviceID, tunnel->take()));
    } else {
        setState(State::appNotListening(deviceID));
    }
    endPass(generation);
}

void UsbmuxdDiscovery::endPass(std::uint64_t generation) {
    emit passFinished();
    if (running_ && generation == generation_) {
        timer_.start(interval_);
    }
}

} // namespace kestrelvane
