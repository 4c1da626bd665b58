#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace kestrelvane::testing {

/// Sets (or, with no value, unsets) one environment variable for as long as
/// it lives, then restores what was there.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const std::optional<std::string>& value)
        : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str())) {
            previous_ = old;
        }
        value ? ::setenv(name_.c_str(), value->c_str(), 1) : ::unsetenv(name_.c_str());
    }
    ~ScopedEnvironment() {
        previous_ ? ::setenv(name_.c_str(), previous_->c_str(), 1) : ::unsetenv(name_.c_str());
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

} // namespace kestrelvane::testing
