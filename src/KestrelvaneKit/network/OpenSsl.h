#pragma once

#include <string>

namespace kestrelvane {

/// OpenSSL's reasons for the last failure on this thread, joined by "; ",
/// and the thread's error queue emptied for the next call.
std::string openSslError();

} // namespace kestrelvane
