#include "agent/inventory/HostContent.h"

#include "agent/base/Log.h"
#include "agent/inventory/WireEncoding.h"

namespace kx::agent {
namespace {

FrameBody encodeSet(const std::vector<Vocabulary>& vocabularies) {
    wire::Frame frame;
    wire::VocabularySet& set = *frame.mutable_vocabulary_set();
    for (const Vocabulary& vocabulary : vocabularies) {
        toWire(vocabulary, *set.add_vocabularies());
    }
    return encodeBody(frame);
}

}  // namespace

HostContent::HostContent(Environment host) : inventory_(std::move(host)), vocabularySet_(encodeSet({})) {}

HostUpdate HostContent::apply(HostImage image, const Inventory::IsOutstanding& isOutstanding) {
    HostUpdate update;
    update.deltas = inventory_.apply(std::move(image.environments), begun_ ? &update.changes : nullptr, isOutstanding);
    begun_ = true;
    if (!update.deltas.empty()) {
        update.renumbered = numbers_.update(inventory_.environments());
    }
    if (image.vocabularies != vocabularies_) {
        vocabularies_ = std::move(image.vocabularies);
        update.vocabularySet = encodeSet(vocabularies_);
        if (update.vocabularySet) {
            vocabularySet_ = update.vocabularySet;
        } else {
            log::error("the vocabularies are too large to be sent; clients keep the ones they have");
        }
    }
    return update;
}

}  // namespace kx::agent
