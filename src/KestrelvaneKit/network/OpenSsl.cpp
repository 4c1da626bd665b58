#include "KestrelvaneKit/network/OpenSsl.h"

#include <openssl/err.h>

namespace kestrelvane {

std::string openSslError() {
    std::string reasons;
    while (const unsigned long code = ERR_get_error()) {
        char text[256];
        ERR_error_string_n(code, text, sizeof text);
        reasons += (reasons.empty() ? "" : "; ") + std::string(text);
    }
    return reasons.empty() ? "unknown error" : reasons;
}

} // namespace kestrelvane
