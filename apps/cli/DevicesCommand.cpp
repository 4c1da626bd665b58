// kestrelvane devices: the phones usbmuxd lists and the receivers on the network.
#include "CommandLine.h"
#include "Commands.h"
#include "KestrelvaneKit/network/KestrelvaneService.h"
#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/network/ServiceBrowser.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/UsbPhones.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

namespace kestrelvane::cli {
namespace {

struct UsbPhone {
    UsbPhones::Phone device{};
    std::string port{}; ///< "listening", "not listening", "detached" or an error
};

struct UsbReport {
    std::string daemon{};
    std::optional<std::string> error{};
    std::vector<UsbPhone> phones{};
};

std::string portState(UsbPhones& usb, const UsbPhones::Phone& phone) {
    try {
        const auto probe = usb.probe(phone);
        switch (probe.outcome) {
        case UsbPhones::Probe::Outcome::listening:
            return "listening"; // the tunnel closes with the probe
        case UsbPhones::Probe::Outcome::notListening:
            return "not listening";
        case UsbPhones::Probe::Outcome::detached:
            return "detached";
        case UsbPhones::Probe::Outcome::failed:
            break;
        }
        return "error " + std::to_string(probe.code);
    } catch (const ConnectError& error) {
        return error.what();
    }
}

UsbReport listUsb() {
    UsbPhones usb;
    UsbReport report{.daemon = usb.daemon()};
    try {
        for (const auto& device : usb.list()) {
            report.phones.push_back({device, portState(usb, device)});
        }
    } catch (const ConnectError& error) {
        report.error = error.what();
    }
    return report;
}

std::vector<DiscoveredService> browseNetwork(std::chrono::duration<double> duration) {
    std::mutex mutex;
    std::vector<DiscoveredService> latest;
    ServiceBrowser browser([&](const std::vector<DiscoveredService>& services) {
        const std::lock_guard lock(mutex);
        latest = services;
    });
    browser.start();
    // DNS-SD answers trickle in; the set seen after the wait is the answer.
    std::this_thread::sleep_for(duration);
    browser.stop();
    const std::lock_guard lock(mutex);
    return latest;
}

std::string join(const std::vector<std::string>& parts) {
    std::string out;
    for (const auto& part : parts) {
        out += (out.empty() ? "" : ", ") + part;
    }
    return out;
}

/// "paired", "not paired" (a receiver that speaks TLS) or "in clear", by the
/// fingerprint its TXT record hints at: for people, never for trust.
std::string pairing(const DiscoveredService& service, const std::vector<PairedDevice>& paired) {
    const auto hint = service.txt.find("fp");
    if (service.txt.count("tls") == 0 || hint == service.txt.end()) {
        return "in clear";
    }
    const bool known =
        hint->second.size() >= 8 && std::any_of(paired.begin(), paired.end(), [&](const auto& d) {
            return d.fingerprint.hex().starts_with(hint->second);
        });
    return known ? "paired" : "not paired";
}

} // namespace

const Command devicesCommand{
    .name = "devices",
    .about = "list the iPhones usbmuxd sees and the receivers on the network",
    .summary = {"Lists the iPhones attached by USB (as usbmuxd sees them; USBMUXD_SOCKET_ADDRESS "
                "chooses another usbmuxd socket), with whether Kestrelvane accepts a connection "
                "on each, and the receivers that announce themselves on the local network "
                "(DNS-SD, _kestrelvane._tcp)."},
    .options = {{"json", "", "one JSON object on stdout"},
                {"wait", "SECONDS", "how long to look for receivers on the network (default 2)",
                 Option::Number{0, 600, false}}},
    .exitStatuses = {{exitOk, "the listing was written, also when usbmuxd cannot be reached or "
                              "nothing is found (the listing says so)"},
                     {exitUsage, "usage error"}},
    .run = runDevices,
};

int runDevices(const std::vector<std::string>& arguments) {
    const CommandLine line(devicesCommand, arguments);
    if (line.finished) {
        return *line.finished;
    }
    const UsbReport usb = listUsb();
    const auto network = browseNetwork(std::chrono::duration<double>(line.number("wait", 2)));
    std::vector<PairedDevice> paired;
    try {
        paired = PairedDevices(DeviceIdentity::defaultFolder()).list();
    } catch (const IdentityError& error) {
        std::fprintf(stderr, "kestrelvane devices: %s\n", error.what());
    }

    if (line.has("json")) {
        nlohmann::json phones = nlohmann::json::array();
        for (const auto& phone : usb.phones) {
            phones.push_back({{"id", phone.device.id},
                              {"serial", phone.device.serial},
                              {"productId", phone.device.productID},
                              {"listening", phone.port == "listening"},
                              {"port9876", phone.port}});
        }
        nlohmann::json receivers = nlohmann::json::array();
        for (const auto& service : network) {
            receivers.push_back({{"name", service.name},
                                 {"host", service.host},
                                 {"addresses", service.addresses},
                                 {"port", service.port},
                                 {"pairing", pairing(service, paired)}});
        }
        nlohmann::json out = {{"usbmuxd", usb.daemon}, {"usb", phones}, {"network", receivers}};
        if (usb.error) {
            out["usbError"] = *usb.error;
        }
        std::printf("%s\n",
                    out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
        return exitOk;
    }

    std::printf("USB (usbmuxd at %s):\n", usb.daemon.c_str());
    if (usb.error) {
        std::printf("  %s\n", usb.error->c_str());
    } else if (usb.phones.empty()) {
        std::printf("  no iPhone attached\n");
    }
    for (const auto& phone : usb.phones) {
        std::printf("  #%lld  %s  product 0x%04llx  Kestrelvane %s\n",
                    static_cast<long long>(phone.device.id), phone.device.serial.c_str(),
                    static_cast<unsigned long long>(phone.device.productID), phone.port.c_str());
    }
    std::printf("Network (%s):\n", std::string(KestrelvaneService::type).c_str());
    if (network.empty()) {
        std::printf("  no receivers found\n");
    }
    for (const auto& service : network) {
        std::printf("  %s  %s port %u  (%s)  %s\n", service.name.c_str(), service.host.c_str(),
                    static_cast<unsigned>(service.port), join(service.addresses).c_str(),
                    pairing(service, paired).c_str());
    }
    return exitOk;
}

} // namespace kestrelvane::cli
