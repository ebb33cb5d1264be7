#include "mib/RowIndex.h"

#include <algorithm>

void RowIndex::clear() {
    subIds_.clear();
    entries_.clear();
}

void RowIndex::beginRow() {
    entries_.push_back({static_cast<std::uint32_t>(subIds_.size()), 0, static_cast<std::uint32_t>(entries_.size())});
}

void RowIndex::addKey(const ColumnValue& key) {
    const auto number = static_cast<std::uint32_t>(key.getLow());
    if (key.getType() == ASN_OCTET_STR) {
        subIds_.push_back(static_cast<std::uint32_t>(key.getText().size()));
        for (const char byte : key.getText()) {
            subIds_.push_back(static_cast<unsigned char>(byte));
        }
    } else if (key.getType() == ASN_IPADDRESS) {
        for (const int shift : {24, 16, 8, 0}) {
            subIds_.push_back(number >> shift & 0xff);
        }
    } else {
        subIds_.push_back(number);
    }
    Entry& row = entries_.back();
    row.length = static_cast<std::uint32_t>(subIds_.size()) - row.begin;
}

void RowIndex::sort() {
    const auto order = [this](const Entry& one, const Entry& other) {
        const int compared = compare(one, subIds_.data() + other.begin, other.length);
        return compared != 0 ? compared < 0 : one.place < other.place;
    };
    const auto equal = [this](const Entry& one, const Entry& other) {
        return compare(one, subIds_.data() + other.begin, other.length) == 0;
    };
    std::sort(entries_.begin(), entries_.end(), order);
    entries_.erase(std::unique(entries_.begin(), entries_.end(), equal), entries_.end());
}

std::vector<std::uint32_t> RowIndex::choose(const netsnmp_handler_registration& registration, int mode,
                                            const netsnmp_request_info* requests) const {
    // Behind the table come the entry and the column; a name that ends there is before all rows.
    const std::size_t before = registration.rootoid_len + 2;
    std::vector<std::uint32_t> places;
    for (const netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        const netsnmp_variable_list& variable = *request->requestvb;
        if (request->processed != 0) {
            continue;
        }
        const std::size_t length = variable.name_length > before ? variable.name_length - before : 0;
        const Entry* const row = winner({variable.name + (length > 0 ? before : 0), length}, mode == MODE_GET);
        if (row != nullptr) {
            places.push_back(row->place);
        }
    }
    std::sort(places.begin(), places.end());
    places.erase(std::unique(places.begin(), places.end()), places.end());
    return places;
}

const RowIndex::Entry* RowIndex::winner(const Suffix& suffix, bool exact) const {
    // The first row that is not before the name, for GETNEXT the first behind it.
    const auto found = std::partition_point(entries_.begin(), entries_.end(), [&](const Entry& entry) {
        const int compared = compare(entry, suffix.begin, suffix.length);
        return exact ? compared < 0 : compared <= 0;
    });
    if (found == entries_.end()) {
        return exact || entries_.empty() ? nullptr : entries_.data();
    }
    return exact && compare(*found, suffix.begin, suffix.length) != 0 ? nullptr : &*found;
}

template <typename SubId>
int RowIndex::compare(const Entry& entry, const SubId* other, std::size_t length) const {
    const std::uint32_t* const own = subIds_.data() + entry.begin;
    const std::size_t common = std::min<std::size_t>(entry.length, length);
    for (std::size_t i = 0; i < common; ++i) {
        if (own[i] != other[i]) {
            return own[i] < other[i] ? -1 : 1;
        }
    }
    return entry.length == length ? 0 : (entry.length < length ? -1 : 1);
}
