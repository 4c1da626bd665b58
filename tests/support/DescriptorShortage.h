#pragma once

#include <sys/resource.h>
#include <vector>

namespace kestrelvane::testing {

/// While alive, the process has no descriptor to spare: the limit is lowered
/// (to at most 256) and every free descriptor below it is taken, so the next
/// call that needs one fails with EMFILE. Only the calling thread should do
/// anything meanwhile; even a sanitizer's runtime may need a descriptor.
class DescriptorShortage {
public:
    DescriptorShortage();
    ~DescriptorShortage();
    DescriptorShortage(const DescriptorShortage&) = delete;
    DescriptorShortage& operator=(const DescriptorShortage&) = delete;

    /// Whether any descriptor had to be taken (false: the test proves nothing).
    bool filled() const noexcept { return !taken_.empty(); }

private:
    rlimit original_{};
    std::vector<int> taken_;
};

} // namespace kestrelvane::testing
