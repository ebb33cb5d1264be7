// How events are made from the elements of a message: a table of parsers by type name.
//
// Thread promise: parsers are registered before the first subscription; from then on the table is only read, on any
// thread. A parser is called on the event loop's thread.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <string>

#include <kxl/KXLEvent.h>
#include <kxl/KXLTaskHandlerPrototype.h>

/// @brief Makes an object of type T from the element that a reader stands on.
template <typename T>
class KXLParserPrototype {
public:
    virtual ~KXLParserPrototype() = default;

    /// @param reader stands on the element, and is left there
    /// @param out receives a new object, the caller's own
    /// @return 0, or -1 when the element does not hold what its type promises; then `out` is left as it is
    virtual int parse(KXLMessageReaderPrototype& reader, T*& out) const = 0;
};

/// @brief The process-wide table of parsers of T.
/// @tparam T what the parsers make
/// @tparam BaseT the base of all that they make
template <typename T, typename BaseT>
class KXLDerivedParserFactory {
public:
    using Parser = KXLParserPrototype<BaseT>;

    struct InternalData {
        std::map<std::string, boost::shared_ptr<const Parser>> parsers;  ///< by type name
        boost::shared_ptr<const Parser> defaultParser;                   ///< for readers that take any element
    };

    /// @return the one table of the process; it has the library's own parsers from the start
    static InternalData& factoryInternalData();
};

template <>
KXLDerivedParserFactory<KXLEvent, KXLEvent>::InternalData&
KXLDerivedParserFactory<KXLEvent, KXLEvent>::factoryInternalData();
