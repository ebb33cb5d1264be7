// Counter classes as the agent's vocabulary describes them.
//
// Thread promise: any thread, also with locks held; only memory is read.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <map>
#include <string>
#include <vector>

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLVocMap.h>

/// Has one category for each counter class.
inline constexpr const char* countersVocabulary = "KXABasicFunctionality";

/// @brief The counters of one class.
struct CategoryInfo {
    std::map<std::string, int> counterTypes;  ///< of each counter; 0: not known
    std::vector<std::string> parameterIds;    ///< the columns of a counter table, in order; duplicates are kept
};

/// @brief Reads a category and appends it. Parameters without a readable id are left out.
/// @param into what it held before stays, but that types which the vocabulary states replace older ones
/// @param vocabulary may be null
/// @return 0; 1 when nothing could be read. Of the reasons only a missing category is logged
int readVocabularyCategory(CategoryInfo& into, const std::string& category,
                           const boost::shared_ptr<KXLVocMap>& vocabulary);

/// @brief The column order of a counter class.
/// @param accessPoint may be null
/// @return empty where the agent, its vocabulary or the class is missing
std::vector<std::string> getCategoryParameterIds(const std::string& category,
                                                 const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint);
