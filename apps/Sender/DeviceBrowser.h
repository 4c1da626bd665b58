#pragma once

#include "KestrelvaneKit/network/ServiceBrowser.h"
#include "Sender/BackgroundWork.h"

#include <QObject>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvane {

/// The phones on the local network that advertise the receiving service, for
/// the window to observe. The DNS-SD browser reports on its own thread; every
/// report replaces `devices` wholesale on the GUI thread.
class DeviceBrowser : public QObject {
    Q_OBJECT
public:
    explicit DeviceBrowser(QObject* parent = nullptr,
                           std::string type = std::string(KestrelvaneService::type));
    ~DeviceBrowser() override;

    const std::vector<DiscoveredService>& devices() const noexcept { return devices_; }
    bool isBrowsing() const noexcept { return browser_ != nullptr; }

    /// Begins browsing; does nothing while browsing.
    void start();
    /// Ends browsing and empties `devices`; a report still on its way is dropped.
    void stop();

    /// The browser's report of the complete current set; any thread. Applied
    /// on the GUI thread unless a stop() comes first.
    void resultsChanged(std::vector<DiscoveredService> services);

signals:
    void devicesChanged();

private:
    void replaceDevices(std::uint64_t generation, std::vector<DiscoveredService> services);

    const std::string type_;
    std::unique_ptr<ServiceBrowser> browser_;
    std::vector<DiscoveredService> devices_;
    // Bumped by stop(), so reports from an ended browse are recognised.
    std::atomic<std::uint64_t> generation_{0};
    BackgroundWork delivery_{0}; // reports, brought to the GUI thread
};

} // namespace kestrelvane
