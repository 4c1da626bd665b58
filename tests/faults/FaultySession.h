#pragma once

#include "KestrelvaneKit/receiving/BatchSaving.h"
#include "KestrelvaneKit/wire/Ack.h"
#include "support/FailingSaver.h"
#include "support/FailingStream.h"

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrelvane::testing {

/// Whose connection a cut is on.
enum class Side { sender, receiver };

struct SessionFaults {
    std::optional<FailingStream::Cut> cut{};
    Side side = Side::sender;
    FailingSaver::Cue saver{};
};

struct SessionResult {
    bool senderReturned = false;
    bool receiverReturned = false;
    bool cut = false;
    std::optional<std::string> senderError{}; ///< what() of the error send threw
    std::vector<Ack> returned{};              ///< what send returned, when it did
    std::vector<Ack> reported{};              ///< every acknowledgement onProgress saw
    std::vector<Ack> receiverEvents{};        ///< every acknowledgement the server reported

    std::set<std::string> reportedOk() const;
    std::set<std::string> receiverOk() const;
};

/// One send from the sending engine to the receiving engine (saving into a
/// folder) over an in-memory connection, with faults on cue: either end's
/// connection may drop, and the receiver's saver may fail or hold back its
/// outcomes. Both engines run on their own threads and every wait has a
/// deadline; an engine that does not return in time is reported as such, and
/// its connection is closed so that the test itself ends.
class FaultySession {
public:
    /// Sends `files` into `destination`, the receiver keeping its temporary
    /// files in `scratch`.
    static SessionResult send(const std::vector<std::filesystem::path>& files,
                              const std::filesystem::path& destination,
                              const std::filesystem::path& scratch,
                              const SessionFaults& faults = SessionFaults());
};

/// Whether the two files hold the same bytes.
bool sameContents(const std::filesystem::path& a, const std::filesystem::path& b);

/// The names of the regular files under `folder`, relative to it, sorted.
std::vector<std::string> filesUnder(const std::filesystem::path& folder);

} // namespace kestrelvane::testing
