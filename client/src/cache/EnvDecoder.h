// From the wire's environments and vocabularies to the library's. Any thread.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include <kxl/KXLEnvCache.h>

#include "client/src/values/VocabularyData.h"
#include "wire/Protocol.h"

namespace kx::client {

/// @brief Reads an identifier of exactly 16 bytes.
/// @return false when the length is another; then `eid` is unchanged
bool decodeEid(const std::string& bytes, KXLEID& eid);

/// @brief Makes an environment. Nothing the peer sent is trusted: identifiers must be 16 bytes.
/// @param reason why it failed, for a log line
/// @return null on failure
KXLEnvCache::EnvPtr decodeEnvironment(const wire::Environment& from, std::string& reason);

/// @brief Makes a vocabulary. Every message is a vocabulary, whatever it holds.
boost::shared_ptr<const VocabularyData> decodeVocabulary(const wire::Vocabulary& from);

}  // namespace kx::client
