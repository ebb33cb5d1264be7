// The environments of the host, as the agent last sent them.
//
// Thread promise: any thread. The cache holds an immutable, reference-counted list; an update builds a new list
// that shares the unchanged environments. Taking the list is one counted copy, and no lock is held while it is
// walked.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <iterator>
#include <memory>
#include <vector>

#include <kxl/KXLEnv.h>
#include <kxl/KXLRefCounter.h>

namespace kx::client {
class EnvStore;
class EnvIndex;
}  // namespace kx::client

/// @brief The environment cache of an access point.
class KXLEnvCache : public KXLRefCounter {
public:
    using EnvPtr = boost::shared_ptr<const KXLEnv>;

    /// The list's storage; shared by the cache, the lists taken from it and their iterators.
    struct Storage : KXLRefCounter {
        std::vector<EnvPtr> environments;                   ///< in list order
        std::shared_ptr<const kx::client::EnvIndex> index;  ///< by identifier
    };

    /// @brief A list as it was when it was taken.
    class EnvValuesList {
    public:
        /// @brief A position in a list; keeps the storage it walks alive.
        class const_iterator {
        public:
            using iterator_category = std::forward_iterator_tag;
            using value_type = EnvPtr;
            using difference_type = std::ptrdiff_t;
            using pointer = const EnvPtr*;
            using reference = const EnvPtr&;

            /// A position in no list: equal only to another such.
            const_iterator() = default;
            const_iterator(boost::intrusive_ptr<const Storage> storage, std::size_t position)
                : storage_(std::move(storage)), position_(position) {}

            /// @return the environment at this position; may be empty
            reference operator*() const { return storage_->environments[position_]; }
            /// @return as operator*; dereferences to the shared pointer, whose own -> reaches the environment
            const EnvPtr& operator->() const { return storage_->environments[position_]; }

            const_iterator& operator++() {
                ++position_;
                return *this;
            }
            const_iterator operator++(int) {
                const_iterator before = *this;
                ++position_;
                return before;
            }
            bool operator==(const const_iterator& other) const {
                return storage_ == other.storage_ && position_ == other.position_;
            }

        private:
            boost::intrusive_ptr<const Storage> storage_;
            std::size_t position_ = 0;
        };

        /// An empty list.
        EnvValuesList() = default;
        explicit EnvValuesList(boost::intrusive_ptr<const Storage> storage) : storage_(std::move(storage)) {}

        const_iterator begin() const { return const_iterator(storage_, 0); }
        const_iterator end() const { return const_iterator(storage_, size()); }
        std::size_t size() const { return storage_ ? storage_->environments.size() : 0; }
        bool empty() const { return size() == 0; }

    private:
        boost::intrusive_ptr<const Storage> storage_;
    };

    KXLEnvCache();
    ~KXLEnvCache() override;

    /// @brief The current list of all environments, in the agent's order; empty before the first snapshot.
    EnvValuesList getEnvList() const;

    /// @brief One environment, also one that is in no list any more because it is gone, as long as alerts about it may
    /// come. It is immutable, so the copy returned shares the record with the list.
    /// @return null when the identifier is unknown
    EnvPtr getEnvCopy(const KXLEID& eid) const;

    /// @brief The store behind the cache, which the library's session updates.
    kx::client::EnvStore& store() { return *store_; }

private:
    std::unique_ptr<kx::client::EnvStore> store_;
};
