// A vocabulary of the agent: parameters, and categories of parameters.
//
// Thread promise: immutable; any thread. Iterators belong to one thread.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <string>

namespace kx::client {
struct VocabularyData;
struct ParameterData;
}  // namespace kx::client

/// The field under which a parameter gives its text value.
inline constexpr int KXL_FIELD_VALUE = 1307;

/// @brief One parameter, read out of a vocabulary.
class KXLVocParameter {
public:
    KXLVocParameter(boost::shared_ptr<const kx::client::VocabularyData> data,
                    const kx::client::ParameterData& parameter);
    virtual ~KXLVocParameter() = default;

    /// @brief Writes a field as text.
    /// @param into left as it is when there is no such field
    /// @param field KXL_FIELD_VALUE
    /// @return 0, or -1 when the parameter does not have the field
    int getValue(std::string& into, int field) const;

private:
    boost::shared_ptr<const kx::client::VocabularyData> data_;
    const kx::client::ParameterData& parameter_;
};

/// @brief Walks the parameters of one category, in their order.
class KXLVocIterator {
public:
    KXLVocIterator(boost::shared_ptr<const kx::client::VocabularyData> data, std::size_t category);
    virtual ~KXLVocIterator() = default;

    /// @return 0 when positioned on a parameter, -1 at the end
    int firstParameter() const;
    int nextParameter() const;

    /// @return 0, or -1 when there is no current parameter or it has no id
    int getID(std::string& id) const;
    /// @param name e.g. "counter_type"
    /// @param value left as it is when the parameter does not have the attribute
    /// @return 0, or -1 when there is no current parameter or no such attribute
    int getAttribute(const std::string& name, int& value) const;

private:
    const kx::client::ParameterData* current() const;

    boost::shared_ptr<const kx::client::VocabularyData> data_;
    std::size_t category_;
    mutable std::size_t position_ = 0;
};

/// @brief One vocabulary.
class KXLVocMap {
public:
    explicit KXLVocMap(boost::shared_ptr<const kx::client::VocabularyData> data);

    /// @return the parameter outside any category with that id, owned by the caller; null when unknown
    std::unique_ptr<KXLVocParameter> readParameter(const std::string& id) const;
    /// @return an iterator over the category, owned by the caller; null when unknown
    std::unique_ptr<KXLVocIterator> readCategory(const std::string& name) const;

private:
    boost::shared_ptr<const kx::client::VocabularyData> data_;
};
