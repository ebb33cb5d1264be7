#include <kxl/KXLVocMap.h>

#include <algorithm>

#include "client/src/values/VocabularyData.h"

using kx::client::CategoryData;
using kx::client::ParameterData;
using kx::client::VocabularyData;

KXLVocParameter::KXLVocParameter(boost::shared_ptr<const VocabularyData> data, const ParameterData& parameter)
    : data_(std::move(data)), parameter_(parameter) {}

int KXLVocParameter::getValue(std::string& into, int field) const {
    if (field != KXL_FIELD_VALUE || !parameter_.value) {
        return -1;
    }
    into = *parameter_.value;
    return 0;
}

KXLVocIterator::KXLVocIterator(boost::shared_ptr<const VocabularyData> data, std::size_t category)
    : data_(std::move(data)), category_(category) {}

const ParameterData* KXLVocIterator::current() const {
    const auto& parameters = data_->categories[category_].parameters;
    return position_ < parameters.size() ? &parameters[position_] : nullptr;
}

int KXLVocIterator::firstParameter() const {
    position_ = 0;
    return current() != nullptr ? 0 : -1;
}

int KXLVocIterator::nextParameter() const {
    if (current() != nullptr) {
        ++position_;
    }
    return current() != nullptr ? 0 : -1;
}

int KXLVocIterator::getID(std::string& id) const {
    const ParameterData* parameter = current();
    if (parameter == nullptr || !parameter->id) {
        return -1;
    }
    id = *parameter->id;
    return 0;
}

int KXLVocIterator::getAttribute(const std::string& name, int& value) const {
    const ParameterData* parameter = current();
    if (parameter == nullptr) {
        return -1;
    }
    const auto attribute = parameter->attributes.find(name);
    if (attribute == parameter->attributes.end()) {
        return -1;
    }
    value = static_cast<int>(attribute->second);
    return 0;
}

KXLVocMap::KXLVocMap(boost::shared_ptr<const VocabularyData> data) : data_(std::move(data)) {}

std::unique_ptr<KXLVocParameter> KXLVocMap::readParameter(const std::string& id) const {
    const auto found = std::find_if(data_->parameters.begin(), data_->parameters.end(),
                                    [&id](const ParameterData& parameter) { return parameter.id == id; });
    return found == data_->parameters.end() ? nullptr : std::make_unique<KXLVocParameter>(data_, *found);
}

std::unique_ptr<KXLVocIterator> KXLVocMap::readCategory(const std::string& name) const {
    const auto found = std::find_if(data_->categories.begin(), data_->categories.end(),
                                    [&name](const CategoryData& category) { return category.name == name; });
    if (found == data_->categories.end()) {
        return nullptr;
    }
    return std::make_unique<KXLVocIterator>(data_, static_cast<std::size_t>(found - data_->categories.begin()));
}
