// An event of the management agent. A value; its payload is shared by copies.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>
#include <utility>

/// @brief Base of what an event carries.
class KXLEventData {
public:
    virtual ~KXLEventData() = default;
};

/// @brief A category that says what kind of event it is, and a payload of the type that goes with it.
class KXLEvent {
public:
    KXLEvent() = default;
    KXLEvent(std::string category, boost::shared_ptr<KXLEventData> data)
        : category_(std::move(category)), data_(std::move(data)) {}

    const std::string& getCategory() const { return category_; }
    void setCategory(std::string category) { category_ = std::move(category); }

    /// @return may be empty; the receiver casts it to the type it expects
    const boost::shared_ptr<KXLEventData>& getData() const { return data_; }
    void setData(boost::shared_ptr<KXLEventData> data) { data_ = std::move(data); }

private:
    std::string category_;
    boost::shared_ptr<KXLEventData> data_;
};
