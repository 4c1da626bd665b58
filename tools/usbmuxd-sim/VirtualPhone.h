#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace kestrelvane {
class ReceiverService;
}

namespace kestrelvane::sim {

/// A phone the simulator pretends is attached, and what listens on its
/// receiver port.
struct VirtualPhone {
    enum class Receiver {
        folder,   ///< the receiving engine, saving into `folder`
        test,     ///< the receiving engine with a saver that keeps nothing
        echo,     ///< sends back every byte it gets
        none,     ///< nothing listens: connects are refused
        vanished, ///< still listed, but gone by the time anyone connects
    };

    std::string serial{};
    std::int64_t productID = 0;
    Receiver receiver = Receiver::test;
    std::filesystem::path folder{};
    /// Speaks only the first version of the protocol: nothing listens on the
    /// extension port.
    bool versionOne = false;
    /// When set, every tunnel to the receiving engine is captured into this
    /// folder as SERIAL-PORT-N.in and .out (see TunnelCapture).
    std::filesystem::path capture{};

    /// "SERIAL,PRODUCTID,RECEIVER" with RECEIVER one of folder=DIR, test,
    /// echo, none, vanished; PRODUCTID in decimal or 0x-hex. Throws
    /// std::invalid_argument saying what is wrong.
    static VirtualPhone parse(const std::string& description);

    /// Whether a connect to `port` reaches something.
    bool accepts(std::uint16_t port) const noexcept;

    /// One line per file received (saved or not), for the simulator's output.
    using OnLine = std::function<void(const std::string&)>;
    /// Starts the phone's receiver, a receiver service (its own scratch
    /// folder, session limit, reports) shared by every copy of this phone.
    /// Throws std::system_error when it cannot. Nothing to do for echo,
    /// none and vanished.
    void switchOn(OnLine onLine);
    /// Serves one tunnel to `port` on the connected socket `fd` until the
    /// sender hangs up. Does not close `fd`.
    void serve(int fd, std::uint16_t port) const;

private:
    std::shared_ptr<ReceiverService> service_{};
};

} // namespace kestrelvane::sim
