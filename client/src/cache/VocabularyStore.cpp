#include "client/src/cache/VocabularyStore.h"

#include <boost/make_shared.hpp>

#include "client/src/cache/EnvDecoder.h"

namespace kx::client {

void VocabularyStore::replace(const wire::VocabularySet& set) {
    auto vocabularies = std::make_shared<Vocabularies>();
    for (const wire::Vocabulary& from : set.vocabularies()) {
        vocabularies->emplace(from.name(), boost::make_shared<KXLVocMap>(decodeVocabulary(from)));
    }
    vocabularies_.store(std::move(vocabularies));
}

boost::shared_ptr<KXLVocMap> VocabularyStore::find(const std::string& name) const {
    const auto vocabularies = vocabularies_.load();
    const auto found = vocabularies->find(name);
    return found == vocabularies->end() ? nullptr : found->second;
}

}  // namespace kx::client
