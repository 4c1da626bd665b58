#include "KestrelvaneKit/network/PairedDevices.h"

#include "KestrelvaneKit/network/PrivateFolder.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>

namespace kestrelvane {
namespace {

constexpr const char* listFileName = "peers.json";
constexpr const char* lockFileName = "peers.lock";
constexpr std::size_t shortestPrefix = 8;

std::vector<PairedDevice> parse(const std::filesystem::path& path, const std::string& text) {
    std::vector<PairedDevice> devices;
    try {
        const nlohmann::json document = nlohmann::json::parse(text);
        for (const auto& entry : document.at("devices")) {
            const auto fingerprint =
                Fingerprint::fromHex(entry.at("fingerprint").get<std::string>());
            const auto pairedAt = Rfc3339::parse(entry.at("pairedAt").get<std::string>());
            if (!fingerprint || !pairedAt) {
                throw std::invalid_argument("a fingerprint or date that is none");
            }
            devices.push_back({.fingerprint = *fingerprint,
                               .name = entry.at("name").get<std::string>(),
                               .destination = entry.at("destination").get<std::string>(),
                               .pairedAt = *pairedAt});
        }
    } catch (const std::exception& error) {
        throw IdentityError(path.string() + ": not a list of paired devices (" + error.what() +
                            ")");
    }
    return devices;
}

std::string serialise(const std::vector<PairedDevice>& devices) {
    nlohmann::json list = nlohmann::json::array();
    for (const PairedDevice& device : devices) {
        list.push_back({{"fingerprint", device.fingerprint.hex()},
                        {"name", device.name},
                        {"destination", device.destination},
                        {"pairedAt", Rfc3339::format(device.pairedAt)}});
    }
    return nlohmann::json{{"devices", list}}.dump(2) + "\n";
}

} // namespace

PairedDevices::PairedDevices(std::filesystem::path folder) : folder_(std::move(folder)) {
}

std::vector<PairedDevice> PairedDevices::list() const {
    const std::optional<std::string> text = PrivateFolder(folder_).read(listFileName);
    return text ? parse(folder_ / listFileName, *text) : std::vector<PairedDevice>{};
}

std::optional<PairedDevice> PairedDevices::find(const Fingerprint& fingerprint) const {
    for (PairedDevice& device : list()) {
        if (device.fingerprint == fingerprint) {
            return std::move(device);
        }
    }
    return std::nullopt;
}

std::vector<PairedDevice> PairedDevices::named(const std::string& destination) const {
    std::vector<PairedDevice> devices = list();
    std::erase_if(devices,
                  [&](const PairedDevice& device) { return !device.answersTo(destination); });
    return devices;
}

template <class Change> void PairedDevices::update(Change change) {
    const PrivateFolder folder(folder_);
    const FileDescriptor lock = folder.lock(lockFileName);
    const std::optional<std::string> text = folder.read(listFileName);
    std::vector<PairedDevice> devices =
        text ? parse(folder_ / listFileName, *text) : std::vector<PairedDevice>{};
    change(devices);
    folder.write(listFileName, serialise(devices), true);
}

std::vector<PairedDevice> PairedDevices::add(const PairedDevice& device) {
    std::vector<PairedDevice> replaced;
    update([&](std::vector<PairedDevice>& devices) {
        const auto same = [&](const PairedDevice& known) {
            return known.fingerprint == device.fingerprint || known.name == device.name ||
                   (!device.destination.empty() && known.destination == device.destination);
        };
        std::copy_if(devices.begin(), devices.end(), std::back_inserter(replaced), same);
        std::erase_if(devices, same);
        devices.push_back(device);
    });
    return replaced;
}

std::vector<PairedDevice> PairedDevices::forget(const std::string& nameOrPrefix) {
    std::string prefix = nameOrPrefix;
    std::transform(prefix.begin(), prefix.end(), prefix.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::vector<PairedDevice> matching;
    update([&](std::vector<PairedDevice>& devices) {
        const auto matches = [&](const PairedDevice& device) {
            return device.name == nameOrPrefix || (prefix.size() >= shortestPrefix &&
                                                   device.fingerprint.hex().starts_with(prefix));
        };
        std::copy_if(devices.begin(), devices.end(), std::back_inserter(matching), matches);
        if (matching.size() == 1) {
            std::erase_if(devices, matches);
        }
    });
    return matching;
}

} // namespace kestrelvane
