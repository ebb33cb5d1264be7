// A configuration property that may not be set.
#pragma once

#include <utility>

/// @brief A value and whether it was set. Unset, the value is a default-made T, which getters that fail leave
/// as it is: a caller that ignores their result publishes the default.
template <typename T>
class KXLOptionalProperty {
public:
    KXLOptionalProperty() = default;
    explicit KXLOptionalProperty(T value) : value_(std::move(value)), isSet_(true) {}

    bool isSet() const { return isSet_; }
    const T& get() const { return value_; }

    void set(T value) {
        value_ = std::move(value);
        isSet_ = true;
    }

private:
    T value_{};
    bool isSet_ = false;
};
