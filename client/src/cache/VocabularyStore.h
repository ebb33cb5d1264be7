// The agent's vocabularies as last received.
//
// Thread promise: any thread may read, at once; the session replaces them from the loop thread. Readers hold a
// lock only to copy one counted pointer, so vocabularies may be read under any other lock.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <memory>
#include <string>

#include <kxl/KXLVocMap.h>

#include "client/src/cache/Guarded.h"
#include "wire/Protocol.h"

namespace kx::client {

/// @brief Vocabulary by name; the default vocabulary has the empty name.
class VocabularyStore {
public:
    /// @brief Replaces all vocabularies.
    void replace(const wire::VocabularySet& set);

    /// @return null when there is no vocabulary of that name
    boost::shared_ptr<KXLVocMap> find(const std::string& name) const;

private:
    using Vocabularies = std::map<std::string, boost::shared_ptr<KXLVocMap>>;
    Guarded<std::shared_ptr<const Vocabularies>> vocabularies_{std::make_shared<const Vocabularies>()};
};

}  // namespace kx::client
