// A table for tests: addresses of numbered owners. Two keys, an owner's number beyond the last column and the
// address, which is also column 1.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mib/Keys.h"
#include "mib/LibraryLock.h"
#include "mib/TableDataContext.h"
#include "mib/TableHelperHelper.h"

namespace kx::test {

/// @brief Counts how many objects of a kind are alive.
template <typename Tag>
class Counted {
public:
    Counted() { ++alive; }
    Counted(const Counted&) { ++alive; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --alive; }

    static inline int alive = 0;
};

struct AddressEntry {
    std::int32_t owner;
    std::string address;
    std::string note;
};

class AddressRow;

/// @brief Counts reads of a kind, and those that were made while the library's lock was held.
struct LockWitness {
    int reads = 0;
    int locked = 0;

    void note() {
        ++reads;
        locked += LibraryLock::isHeldHere() ? 1 : 0;
    }
};

/// @brief The vector's rows as they were when the walk began.
class AddressSnapshot : Counted<AddressSnapshot> {
public:
    using Cursor = std::vector<AddressEntry>::const_iterator;

    AddressSnapshot() : entries_(table) { taken.note(); }

    Cursor begin() const { return entries_.begin(); }
    Cursor end() const { return entries_.end(); }

    static int alive() { return Counted<AddressSnapshot>::alive; }

    /// What the table holds; a test fills it.
    static inline std::vector<AddressEntry> table;
    static inline LockWitness taken;

private:
    std::vector<AddressEntry> entries_;
};

struct AddressTable {
    using Keys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_IPADDRESS, 1>, NullType>>;
    using Row = AddressRow;
    using Cursor = AddressSnapshot::Cursor;
    using Snapshot = AddressSnapshot;

    static constexpr unsigned minColumn = 1;
    static constexpr unsigned maxColumn = 3;
};

/// @brief Column 1 the address, 2 the note, 3 nothing; tag 4 the owner.
class AddressRow : public TableDataContext<AddressTable>, Counted<AddressRow> {
public:
    explicit AddressRow(AddressEntry entry) : entry_(std::move(entry)) {}

    ColumnValue operator[](unsigned tag) override {
        switch (tag) {
            case 1:
                return fromString(ASN_IPADDRESS, entry_.address);
            case 2:
                notes.note();
                return fromString(ASN_OCTET_STR, entry_.note);
            case 4: {
                ColumnValue owner(ASN_UNSIGNED);
                owner.setInt32(entry_.owner);
                return owner;
            }
            default:
                return {};
        }
    }

    static int alive() { return Counted<AddressRow>::alive; }

    /// Of column 2, which is no key: those of the keys are read to walk, and ask nobody.
    static inline LockWitness notes;

private:
    static ColumnValue fromString(std::uint8_t type, const std::string& text) {
        ColumnValue value(type);
        value.setFromString(text);
        return value;
    }

    AddressEntry entry_;
};

using AddressHelper = TableHelperHelper<AddressTable>;

/// @brief What registration fills in for the helper.
inline netsnmp_iterator_info addressCallbacks(netsnmp_table_registration_info* tableInfo) {
    netsnmp_iterator_info info{};
    info.get_first_data_point = &AddressHelper::first_data_point;
    info.get_next_data_point = &AddressHelper::next_data_point;
    info.make_data_context = &AddressHelper::make_data;
    info.free_data_context = &AddressHelper::free_data;
    info.free_loop_context_at_end = &AddressHelper::free_loop;
    info.table_reginfo = tableInfo;
    return info;
}

}  // namespace kx::test
