#pragma once

#include "KestrelvaneKit/usb/PropertyList.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <string>
#include <system_error>

namespace kestrelvane::testing {

/// How `call` ended, in words a test compares (by prefix): "returned",
/// "closed" (StreamError::closed), "errno N: what" (std::system_error),
/// "usbmuxd: message" (UsbmuxdError), "plist: what" (PropertyList::ParseError)
/// or "other: what".
inline bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

template <class Call> std::string outcomeOf(Call call) {
    try {
        call();
        return "returned";
    } catch (const StreamError& error) {
        return error.isClosed() ? "closed" : std::string("refused: ") + error.what();
    } catch (const std::system_error& error) {
        return "errno " + std::to_string(error.code().value()) + ": " + error.what();
    } catch (const UsbmuxdError& error) {
        return "usbmuxd: " + error.message();
    } catch (const PropertyList::ParseError& error) {
        return std::string("plist: ") + error.what();
    } catch (const std::exception& error) {
        return std::string("other: ") + error.what();
    }
}

} // namespace kestrelvane::testing
