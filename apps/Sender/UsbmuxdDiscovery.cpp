#include "Sender/UsbmuxdDiscovery.h"

#include "Sender/BackgroundWork.h"

namespace kestrelvane {

UsbmuxdDiscovery::UsbmuxdDiscovery(UsbPhones::Address address, std::chrono::milliseconds interval,
                                   QObject* parent)
    : QObject(parent), interval_(interval),
      phones_(std::make_shared<UsbPhones>(std::move(address))),
      worker_(std::make_unique<BackgroundWork>(1)) {
    timer_.setSingleShot(true);
    connect(&timer_, &QTimer::timeout, this, &UsbmuxdDiscovery::tick);
}

UsbmuxdDiscovery::~UsbmuxdDiscovery() {
    stop();
    worker_.reset();
    // Answers still queued for this object are dropped with it; their probes
    // close any tunnel they carry.
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
    const int fd = tunnel_.release(); // handed out, not closed
    setState(State::appNotListening(state_.deviceID));
    return fd;
}

void UsbmuxdDiscovery::dropTunnel() {
    if (state_.kind == State::Kind::ready) {
        setState(State::appNotListening(state_.deviceID));
    }
}

void UsbmuxdDiscovery::setState(const State& state, FileDescriptor tunnel) {
    if (state == state_) {
        return;
    }
    tunnel_ = std::move(tunnel);
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
    worker_->runThenDeliver([this, phones = phones_, generation]() -> std::function<void()> {
        std::optional<std::vector<UsbPhones::Phone>> listed;
        try {
            listed = phones->list();
        } catch (const std::exception&) {
            // Unreachable or confused daemon: shows as no device.
        }
        return [this, generation, listed] { this->listed(generation, listed); };
    });
}

void UsbmuxdDiscovery::listed(std::uint64_t generation,
                              const std::optional<std::vector<UsbPhones::Phone>>& phones) {
    if (generation != generation_) {
        return;
    }
    if (paused_) {
        endPass(generation);
        return;
    }
    if (!phones || phones->empty()) {
        setState(State::noDevice());
        endPass(generation);
        return;
    }
    const UsbPhones::Phone phone = phones->front();
    if (state_.kind == State::Kind::ready && state_.deviceID == phone.id) {
        endPass(generation); // the held tunnel is not probed again
        return;
    }
    worker_->runThenDeliver([this, phones = phones_, generation, phone]() -> std::function<void()> {
        std::shared_ptr<UsbPhones::Probe> probe;
        bool extended = false;
        try {
            probe = std::make_shared<UsbPhones::Probe>(phones->probeReceiver(phone, extended));
        } catch (const std::exception&) {
        }
        return [this, generation, id = phone.id, probe, extended] {
            connected(generation, id, probe, extended);
        };
    });
}

void UsbmuxdDiscovery::connected(std::uint64_t generation, std::int64_t deviceID,
                                 const std::shared_ptr<UsbPhones::Probe>& probe, bool extended) {
    // A stop or a pause in the meantime wins; the probe closes an unused tunnel.
    if (generation != generation_) {
        return;
    }
    if (paused_) {
        endPass(generation);
        return;
    }
    using Outcome = UsbPhones::Probe::Outcome;
    if (!probe || probe->outcome == Outcome::detached) {
        setState(State::noDevice());
    } else if (probe->outcome == Outcome::listening) {
        const int fd = probe->tunnel.get();
        setState(State::ready(deviceID, fd, extended), std::move(probe->tunnel));
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
