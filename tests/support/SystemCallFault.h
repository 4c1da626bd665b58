#pragma once

namespace kestrelvane::testing {

/// Makes one kind of system call fail, for as long as it lives (or for its
/// next few calls), in the test programs linked with the wrappers of
/// SystemCallFault.cpp (the link options kv_wrap_system_calls() adds): calls
/// that do not fail on a working system, so that what the code does when they
/// fail can be tested. Any thread's calls fail, not only the test's, so arm
/// one only while no other thread makes that call.
class SystemCallFault {
public:
    enum class Call {
        fsync,
        chmod,
        utimensat,
        socket,
        poll,
        accept4,
        send,
        recv,
        read,
        pread,
        fstat,
        getsockopt
    };
    /// For fsync: which descriptors fail.
    enum class Target { any, files, folders };
    static constexpr int always = 1 << 30; // more calls than any test makes

    SystemCallFault(Call call, int error, Target target = Target::any, int times = always);
    /// Fails only the next `times` calls.
    SystemCallFault(Call call, int error, int times)
        : SystemCallFault(call, error, Target::any, times) {}
    ~SystemCallFault();
    SystemCallFault(const SystemCallFault&) = delete;
    SystemCallFault& operator=(const SystemCallFault&) = delete;

    /// How many calls were made to fail so far.
    static int failures(Call call);

private:
    Call call_;
};

} // namespace kestrelvane::testing
