// kestrelvane-usbmuxd-sim: a usbmuxd daemon with virtual phones, for tests and demos.
#include "UsbmuxdSimulator.h"

#include <charconv>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>

namespace {

constexpr const char* usage =
    R"(Usage: kestrelvane-usbmuxd-sim (--socket PATH | --tcp PORT) [--phone PHONE]... [--buid TEXT]

A usbmuxd-compatible daemon whose devices are virtual phones. Clients find it
through USBMUXD_SOCKET_ADDRESS=UNIX:PATH (or 127.0.0.1:PORT).

  --socket PATH   listen on a Unix socket at PATH
  --tcp PORT      listen on 127.0.0.1:PORT and [::1]:PORT (0 picks a free port)
  --phone PHONE   attach a virtual phone at start; repeatable
  --buid TEXT     the answer to ReadBUID
  --version-1     phones speak only the first version of the protocol: nothing
                  listens on port 9877, where a phone that speaks the resume
                  extension listens too (with its partial files kept under
                  $XDG_CACHE_HOME/kestrelvane/partials)
  --capture DIR   write each tunnel to a phone's receiving engine to
                  DIR/SERIAL-PORT-N.in (what the phone heard) and .out (what
                  it said), byte for byte, as it happens
  -h, --help      this text
  --version       the version, on one line

PHONE is SERIAL,PRODUCTID,RECEIVER, where PRODUCTID is decimal or 0x-hex and
RECEIVER says what listens on the phone's port 9876:
  folder=DIR   the receiving engine, saving into DIR
  test         the receiving engine, keeping nothing
  echo         every byte sent comes back
  none         nothing: Connect answers 3 (connection refused)
  vanished     listed, but Connect answers 2 (bad device)

Requests: ListDevices, Connect, Listen, ReadBUID as usbmuxd answers them, in
the format of the request (XML or binary) and with its tag. Phones come and go
while it runs through two requests of its own on the same socket:
  {MessageType: "Attach", Phone: PHONE}         -> Result 0 and the new DeviceID
  {MessageType: "Detach", SerialNumber: SERIAL} -> Result 0, or 2 when unknown
Listeners get Attached and Detached events; detaching also ends the phone's
open tunnels.

The first line of output is "listening on PATH" (or "listening on
127.0.0.1:PORT") once clients can connect. SIGTERM or SIGINT ends every
connection and exits with status 0.
)";

kestrelvane::sim::UsbmuxdSimulator* running = nullptr;

extern "C" void onStopSignal(int) {
    if (running != nullptr) {
        running->requestStop();
    }
}

int fail(const std::string& message) {
    std::cerr << "kestrelvane-usbmuxd-sim: " << message << "\n(try --help)\n";
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    using kestrelvane::sim::UsbmuxdSimulator;
    using kestrelvane::sim::VirtualPhone;

    UsbmuxdSimulator::Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::cout << usage;
            return 0;
        }
        if (arg == "--version") {
            std::cout << "kestrelvane-usbmuxd-sim " KV_VERSION "\n";
            return 0;
        }
        if (arg == "--version-1") {
            options.versionOne = true;
            continue;
        }
        if (i + 1 == argc) {
            return fail("unknown or incomplete option '" + arg + "'");
        }
        const std::string value = argv[++i];
        if (arg == "--socket") {
            options.socketPath = value;
        } else if (arg == "--tcp") {
            std::uint16_t port = 0;
            const char* const end = value.data() + value.size();
            if (const auto read = std::from_chars(value.data(), end, port);
                read.ec != std::errc() || read.ptr != end) {
                return fail("bad port '" + value + "'");
            }
            options.tcpPort = port;
        } else if (arg == "--phone") {
            try {
                options.phones.push_back(VirtualPhone::parse(value));
            } catch (const std::invalid_argument& error) {
                return fail(error.what());
            }
        } else if (arg == "--capture") {
            if (!std::filesystem::is_directory(value)) {
                return fail("'" + value + "' is not a folder to capture into");
            }
            options.capture = value;
        } else if (arg == "--buid") {
            options.buid = value;
        } else {
            return fail("unknown option '" + arg + "'");
        }
    }
    if (options.socketPath.empty() == !options.tcpPort.has_value()) {
        return fail("give exactly one of --socket and --tcp");
    }

    // Writes to a vanished client must fail, not end the daemon.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        UsbmuxdSimulator simulator(std::move(options));
        const std::string where = simulator.listen();
        running = &simulator;
        std::signal(SIGTERM, onStopSignal);
        std::signal(SIGINT, onStopSignal);
        std::cout << "listening on " << where << std::endl;
        simulator.run();
        std::signal(SIGTERM, SIG_DFL);
        std::signal(SIGINT, SIG_DFL);
        running = nullptr;
    } catch (const std::exception& error) {
        std::cerr << "kestrelvane-usbmuxd-sim: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
