// An event of the management agent. A value; its payload is shared by copies.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <utility>

#include <kxl/KXLGUID.h>

/// @brief Base of what an event carries.
class KXLEventData {
public:
    virtual ~KXLEventData() = default;
};

/// @brief A category that says what kind of event it is, and a payload of the type that goes with it.
class KXLEvent {
public:
    /// What to subscribe to on a connection.
    static const std::string subscriptionName;
    /// What the elements of a message's event list are called.
    static const std::string eventTag;
    /// The field of a message that is the event list.
    static constexpr int listField = 1307;

    KXLEvent() = default;
    KXLEvent(std::string category, boost::shared_ptr<KXLEventData> data)
        : category_(std::move(category)), data_(std::move(data)) {}

    const std::string& getCategory() const { return category_; }
    void setCategory(std::string category) { category_ = std::move(category); }

    /// @return may be empty; the receiver casts it to the type it expects
    const boost::shared_ptr<KXLEventData>& getData() const { return data_; }
    void setData(boost::shared_ptr<KXLEventData> data) { data_ = std::move(data); }

    /// @return when it happened, in milliseconds since 1970-01-01 UTC; 0 when that is not known
    std::uint64_t getTimeMs() const { return timeMs_; }
    void setTimeMs(std::uint64_t timeMs) { timeMs_ = timeMs; }

private:
    std::string category_;
    boost::shared_ptr<KXLEventData> data_;
    std::uint64_t timeMs_ = 0;
};

/// @brief A resource of an environment has run out, or is about to, or has recovered.
class KXLResourceAlertData : public KXLEventData {
public:
    /// The category of the events that carry this.
    static const std::string category;

    KXLEID eid;                   ///< the container, or the host itself
    std::int32_t alertCode = 0;   ///< 0 clear, 1 warning, 2 critical
    std::string alertText;        ///< any bytes
    std::int64_t alertValue = 0;  ///< what the text is about: a count or an amount
};

/// @brief An environment was added, changed or removed.
class KXLEnvironmentChangeData : public KXLEventData {
public:
    /// The category of the events that carry this.
    static const std::string category;

    enum class Kind : std::int32_t { Unknown = 0, Added = 1, Modified = 2, Removed = 3 };

    KXLEID eid;
    Kind kind = Kind::Unknown;
    std::string name;             ///< the environment's, also of one that is gone
    std::int32_t state = 0;       ///< see KXLEnvStatus; of a removed one, as it was last
    std::int32_t transition = 0;  ///< likewise
};
