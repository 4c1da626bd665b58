// kestrelvane id: this device's name and the fingerprint that identifies it.
#include "CommandLine.h"
#include "Commands.h"
#include "KestrelvaneKit/network/DeviceIdentity.h"

#include <cstdio>

namespace kestrelvane::cli {

const Command idCommand{
    .name = "id",
    .about = "show this device's key fingerprint, which paired devices know it by",
    .summary = {"Prints this device's name and the SHA-256 fingerprint of its key, made on first "
                "use and kept in $XDG_DATA_HOME/kestrelvane (by default "
                "~/.local/share/kestrelvane), readable by this user only. Devices that pair "
                "with this one (kestrelvane pair) know it by this fingerprint; compare it when "
                "in doubt."},
    .options = {{"new", "",
                 "make a new key, replacing the one kept (every paired device must then pair "
                 "again): for a copied home folder or a key that may have leaked"}},
    .exitStatuses = {{exitOk, "the fingerprint was printed"},
                     {exitFailure, "the key cannot be made or read, or is not private (the "
                                   "message says how to fix it)"},
                     {exitUsage, "usage error"}},
    .run = runId,
};

int runId(const std::vector<std::string>& arguments) {
    const CommandLine line(idCommand, arguments);
    if (line.finished) {
        return *line.finished;
    }
    try {
        const auto folder = DeviceIdentity::defaultFolder();
        const DeviceIdentity identity = line.has("new") ? DeviceIdentity::createNew(folder)
                                                        : DeviceIdentity::loadOrCreate(folder);
        std::printf("Device:      %s\nFingerprint: %s\nKey:         %s\n", hostName().c_str(),
                    identity.fingerprint().grouped().c_str(), (folder / "identity.pem").c_str());
        if (line.has("new")) {
            std::printf("This is a new key: every paired device must pair with this one again.\n");
        }
        return exitOk;
    } catch (const IdentityError& error) {
        std::fprintf(stderr, "kestrelvane id: %s\n", error.what());
        return exitFailure;
    }
}

} // namespace kestrelvane::cli
