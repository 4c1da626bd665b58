#pragma once

#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <optional>

namespace kestrelvane::testing {

/// What `call` threw as an `Error`; nothing when it returned.
template <class Error, class Call> std::optional<Error> errorOf(Call call) {
    try {
        call();
    } catch (const Error& error) {
        return error;
    }
    return std::nullopt;
}

/// Whether `call` ended with StreamError::closed (not returned, nor thrown another error).
template <class Call> bool throwsClosed(Call call) {
    const auto error = errorOf<StreamError>(call);
    return error && error->isClosed();
}

} // namespace kestrelvane::testing
