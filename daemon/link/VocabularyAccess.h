// What the agent's vocabulary says of a counter class.
//
// Thread promise: any thread, and under any lock: vocabularies are read from memory. No lock of their own.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <map>
#include <string>
#include <vector>

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLVocMap.h>

/// The vocabulary that describes the counter classes, one category each.
inline constexpr const char* countersVocabulary = "KXABasicFunctionality";

/// @brief One category: its parameters are the counters of a class.
struct CategoryInfo {
    std::map<std::string, int> counterTypes;  ///< by parameter id; 0 where the vocabulary does not say
    std::vector<std::string> parameterIds;    ///< in the vocabulary's order; an id that it repeats stands here again
};

/// @brief Adds what a vocabulary says of a category. A parameter whose id cannot be read is passed over.
/// @param into keeps what it holds; a counter type is overwritten where the vocabulary has one
/// @param vocabulary may be null
/// @return 0 when the whole category was walked; 1 when there is no vocabulary, no such category (which is logged), or
/// no parameter in it
int readVocabularyCategory(CategoryInfo& into, const std::string& category,
                           const boost::shared_ptr<KXLVocMap>& vocabulary);

/// @brief The counters of a class.
/// @param accessPoint may be null
/// @return the ids in the vocabulary's order; empty when anything fails
std::vector<std::string> getCategoryParameterIds(const std::string& category,
                                                 const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint);
