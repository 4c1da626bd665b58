#pragma once

#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <filesystem>
#include <optional>
#include <string>

namespace kestrelvane {

/// A folder only this user may change, holding files only this user may read
/// or change: where the device key and the list of paired devices live.
///
/// The folder is opened once, without following a symbolic link, and every
/// file is reached relative to it, again without following links, so that
/// nobody can swap either for one of their own between a check and its use.
/// Everything that fails or does not pass a check throws IdentityError
/// naming the path and what to do.
class PrivateFolder {
public:
    /// Opens `path`, first creating it (mode 0700, parents as usual) when
    /// missing. Refuses a folder of another user's, or one that group or
    /// others may write.
    explicit PrivateFolder(std::filesystem::path path);

    const std::filesystem::path& path() const noexcept { return path_; }

    /// The text of file `name`; nothing when there is no such file. Refuses
    /// anything but a regular file of this user's own that neither group nor
    /// others may read or write (as ssh refuses such a key).
    std::optional<std::string> read(const std::string& name) const;

    /// Writes `text` to a new file of mode 0600 and a random name, syncs it
    /// and puts it in place as `name` whole: replacing what is there, or —
    /// with `replace` false — only when nothing is, returning false (and
    /// leaving the other) otherwise.
    bool write(const std::string& name, const std::string& text, bool replace) const;

    /// Holds an exclusive lock on file `name` (made when missing) until the
    /// returned descriptor goes.
    FileDescriptor lock(const std::string& name) const;

private:
    [[noreturn]] void fail(const std::string& name, const std::string& what) const;

    std::filesystem::path path_;
    FileDescriptor folder_;
};

} // namespace kestrelvane
