#include "Sender/DeviceBrowser.h"

namespace kestrelvane {

DeviceBrowser::DeviceBrowser(QObject* parent, std::string type)
    : QObject(parent), type_(std::move(type)) {
}

DeviceBrowser::~DeviceBrowser() {
    if (browser_) {
        browser_->stop(); // no report runs after this; queued ones go with the object
    }
}

void DeviceBrowser::start() {
    if (browser_) {
        return;
    }
    browser_ = std::make_unique<ServiceBrowser>(
        [this](const std::vector<DiscoveredService>& services) { resultsChanged(services); },
        type_);
    browser_->start();
}

void DeviceBrowser::stop() {
    if (browser_) {
        browser_->stop();
        browser_.reset();
    }
    ++generation_;
    const bool changed = !devices_.empty();
    devices_.clear();
    if (changed) {
        emit devicesChanged();
    }
}

void DeviceBrowser::resultsChanged(std::vector<DiscoveredService> services) {
    const std::uint64_t generation = generation_.load();
    delivery_.deliver([this, generation, services = std::move(services)]() mutable {
        replaceDevices(generation, std::move(services));
    });
}

void DeviceBrowser::replaceDevices(std::uint64_t generation,
                                   std::vector<DiscoveredService> services) {
    if (generation != generation_.load()) {
        return;
    }
    devices_ = std::move(services);
    emit devicesChanged();
}

} // namespace kestrelvane
