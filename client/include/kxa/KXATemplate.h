// A template of a container: of its operating system, or of an application in it.
#pragma once

#include <string>
#include <utility>

/// @brief Two texts, either of which may be empty.
class KXATemplate {
public:
    KXATemplate() = default;
    KXATemplate(std::string name, std::string version) : name_(std::move(name)), version_(std::move(version)) {}

    const std::string& getName() const { return name_; }
    const std::string& getVersion() const { return version_; }

private:
    std::string name_;
    std::string version_;
};
