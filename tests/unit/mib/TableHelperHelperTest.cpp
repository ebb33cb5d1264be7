// The callbacks themselves, called the way the library's iterator calls them and with its rules of ownership; a
// sanitizer or valgrind run is what proves those kept.
#include "mib/TableHelperHelper.h"

#include <gmock/gmock.h>

#include <array>

#include "AddressTable.h"
#include "Varbinds.h"

namespace {

using namespace kx::test;
using testing::ElementsAre;

/// What the iterator does in one request, step by step.
class Iteration : public testing::Test {
protected:
    Iteration() {
        KeyIndexes<AddressTable::Keys, AddressTable::maxColumn>::add_indexes(&tableInfo_);
        iterator_ = addressCallbacks(&tableInfo_);
    }

    ~Iteration() override {
        endLoop();
        snmp_free_varbind(tableInfo_.indexes);
        AddressSnapshot::table.clear();
        EXPECT_EQ(AddressSnapshot::alive(), 0);
        EXPECT_EQ(AddressRow::alive(), 0);
        EXPECT_EQ(iterator_.myvoid, nullptr);
    }

    /// The first row's index; empty when there is none.
    Oid first() {
        netsnmp_variable_list* const given = snmp_clone_varbind(tableInfo_.indexes);
        return take(given, iterator_.get_first_data_point(&loop_, &data_, given, &iterator_));
    }

    /// The next row's index; empty at the end.
    Oid next() {
        netsnmp_variable_list* const given = list_.release();
        return take(given, iterator_.get_next_data_point(&loop_, &data_, given, &iterator_));
    }

    /// All rows' indexes.
    std::vector<Oid> all() {
        std::vector<Oid> found;
        for (Oid index = first(); !index.empty(); index = next()) {
            found.push_back(index);
        }
        return found;
    }

    std::unique_ptr<TableDataContext<AddressTable>> makeRow() {
        return std::unique_ptr<TableDataContext<AddressTable>>(
            static_cast<TableDataContext<AddressTable>*>(iterator_.make_data_context(loop_, &iterator_)));
    }

    void endLoop() {
        if (loop_ != nullptr) {
            iterator_.free_loop_context_at_end(loop_, &iterator_);
            loop_ = nullptr;
        }
        list_.reset();
    }

    /// The library forgets the list it gave when it gets another one; otherwise it frees that list itself.
    Oid take(netsnmp_variable_list* given, netsnmp_variable_list* returned) {
        EXPECT_EQ(data_, nullptr) << "rows are made on demand";
        EXPECT_TRUE(returned == nullptr || returned != given);
        list_.reset(returned != nullptr ? returned : given);
        return returned == nullptr ? Oid() : encodedIndex(returned);
    }

    netsnmp_table_registration_info tableInfo_{};
    netsnmp_iterator_info iterator_{};
    void* loop_ = nullptr;
    void* data_ = nullptr;
    VarbindPtr list_;
};

TEST_F(Iteration, VisitsEveryRowInTheSourcesOrder) {
    AddressSnapshot::table = {{102, "10.0.0.9", ""}, {101, "10.0.0.1", ""}, {101, "9.0.0.1", ""}};
    EXPECT_THAT(all(), ElementsAre(Oid{102, 10, 0, 0, 9}, Oid{101, 10, 0, 0, 1}, Oid{101, 9, 0, 0, 1}));
}

TEST_F(Iteration, StaysAtTheEnd) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}};
    all();
    EXPECT_TRUE(next().empty());
    EXPECT_TRUE(next().empty());
}

TEST_F(Iteration, OfAnEmptyTableHasNoRowButACursorToFree) {
    EXPECT_TRUE(first().empty());
    EXPECT_NE(loop_, nullptr);
    EXPECT_NE(iterator_.myvoid, nullptr);
    EXPECT_TRUE(next().empty());
}

TEST_F(Iteration, SeesTheTableAsItWasAtTheFirstRow) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}, {102, "10.0.0.2", ""}};
    first();
    AddressSnapshot::table.clear();
    EXPECT_EQ(next(), (Oid{102, 10, 0, 0, 2}));
}

TEST_F(Iteration, WithoutSnapshotOrCursorHasNoNextRow) {
    EXPECT_TRUE(next().empty());
    AddressSnapshot::table = {{101, "10.0.0.1", ""}, {102, "10.0.0.2", ""}};
    first();
    void* none = nullptr;
    EXPECT_EQ(iterator_.get_next_data_point(&none, &data_, list_.get(), &iterator_), nullptr);
}

TEST_F(Iteration, DropsASnapshotLeftFromAnEarlierRequest) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}};
    first();
    // The library gave up half-way: it freed what it knew of, but never ended the loop.
    const std::unique_ptr<AddressTable::Cursor> forgotten(static_cast<AddressTable::Cursor*>(loop_));
    loop_ = nullptr;
    AddressSnapshot::table = {{102, "10.0.0.2", ""}};
    EXPECT_EQ(first(), (Oid{102, 10, 0, 0, 2}));
    EXPECT_EQ(AddressSnapshot::alive(), 1);
}

TEST_F(Iteration, IsRestartedWithTheLastRowsList) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}, {102, "10.0.0.2", ""}};
    all();
    // A GETNEXT that ran off a column starts over for the next one, and hands in the list it still has.
    iterator_.free_loop_context_at_end(loop_, &iterator_);
    loop_ = nullptr;
    netsnmp_variable_list* const given = list_.release();
    EXPECT_EQ(take(given, iterator_.get_first_data_point(&loop_, &data_, given, &iterator_)), (Oid{101, 10, 0, 0, 1}));
}

TEST_F(Iteration, LeavesTheTemplateAlone) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}};
    netsnmp_variable_list* const given = snmp_clone_varbind(tableInfo_.indexes);
    take(given, iterator_.get_first_data_point(&loop_, &data_, given, &iterator_));
    EXPECT_EQ(given->type, ASN_UNSIGNED);
    EXPECT_EQ(given->val_len, 0U) << "the row's values went into a list of their own";
}

TEST_F(Iteration, EndsQuietlyWhenTheTemplateCannotBeCloned) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}};
    EXPECT_EQ(iterator_.get_first_data_point(&loop_, &data_, nullptr, &iterator_), nullptr);
    EXPECT_EQ(AddressRow::alive(), 0);
}

TEST_F(Iteration, PutsAnAddressIntoTheIndexInHostOrder) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}};
    EXPECT_EQ(first(), (Oid{101, 10, 0, 0, 1}));
    EXPECT_EQ(list_->next_variable->val_len, 4U);
}

TEST_F(Iteration, EncodesANumberWithTheHighBitIn32Bits) {
    AddressSnapshot::table = {{-1, "255.0.0.1", ""}, {std::numeric_limits<std::int32_t>::min(), "0.0.0.0", ""}};
    EXPECT_THAT(all(), ElementsAre(Oid{4294967295, 255, 0, 0, 1}, Oid{2147483648, 0, 0, 0, 0}));
}

TEST_F(Iteration, KeepsNoRowWhileItWalks) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}, {102, "10.0.0.2", ""}};
    first();
    EXPECT_EQ(AddressRow::alive(), 0);
    next();
    EXPECT_EQ(AddressRow::alive(), 0);
}

TEST_F(Iteration, MakesARowThatOutlivesTheLoop) {
    AddressSnapshot::table = {{101, "10.0.0.1", "one"}, {102, "10.0.0.2", "two"}};
    first();
    next();
    auto row = makeRow();
    endLoop();
    AddressSnapshot::table.clear();
    EXPECT_EQ((*row)[2].getText(), "two");
    EXPECT_EQ((*row)[4].getLow(), 102);
}

TEST_F(Iteration, MakesNoRowWithoutACursor) {
    EXPECT_EQ(iterator_.make_data_context(nullptr, &iterator_), nullptr);
}

TEST_F(Iteration, DestroysRowsAndIgnoresNull) {
    AddressSnapshot::table = {{101, "10.0.0.1", ""}};
    first();
    void* const row = iterator_.make_data_context(loop_, &iterator_);
    EXPECT_EQ(AddressRow::alive(), 1);
    iterator_.free_data_context(row, &iterator_);
    EXPECT_EQ(AddressRow::alive(), 0);
    iterator_.free_data_context(nullptr, &iterator_);
}

TEST_F(Iteration, EndsWithoutACursorToo) {
    first();
    const std::unique_ptr<AddressTable::Cursor> cursor(static_cast<AddressTable::Cursor*>(loop_));
    loop_ = nullptr;
    iterator_.free_loop_context_at_end(nullptr, &iterator_);
    EXPECT_EQ(iterator_.myvoid, nullptr);
    EXPECT_EQ(AddressSnapshot::alive(), 0);
}

TEST(TableDataContext, HasNoValueForAnyTagByDefault) {
    class BareRow : public TableDataContext<AddressTable> {};
    BareRow row;
    for (const unsigned tag : {0U, 1U, 4U, 1000U}) {
        EXPECT_TRUE(row[tag].isNull());
    }
}

/// One request as it reaches the final handler.
class Request {
public:
    explicit Request(unsigned column) {
        variable_.type = ASN_NULL;
        request_.requestvb = &variable_;
        tableInfo_.colnum = column;
        addData(TABLE_HANDLER_NAME, &tableInfo_);
    }
    ~Request() {
        netsnmp_free_request_data_sets(&request_);
        snmp_reset_var_buffers(&variable_);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    Request& withRow(TableDataContext<AddressTable>& row) {
        addData(TABLE_ITERATOR_NAME, &row);
        return *this;
    }

    void withoutTableInfo() { netsnmp_free_request_data_sets(&request_); }

    void setProcessed() { request_.processed = 1; }
    void setNext(Request& other) { request_.next = &other.request_; }

    netsnmp_request_info* get() { return &request_; }
    const netsnmp_variable_list& answer() const { return variable_; }

private:
    void addData(const char* name, void* data) {
        netsnmp_request_add_list_data(&request_, netsnmp_create_data_list(name, data, nullptr));
    }

    netsnmp_variable_list variable_{};
    netsnmp_request_info request_{};
    netsnmp_table_request_info tableInfo_{};
};

class FinalHandler : public testing::Test {
protected:
    int answer(Request& first, int mode = MODE_GET) {
        netsnmp_agent_request_info info{};
        info.mode = mode;
        return AddressHelper::final_handler(nullptr, nullptr, &info, first.get());
    }

    AddressRow row_{{101, "10.0.0.1", "one"}};
};

TEST_F(FinalHandler, AnswersAColumnsValue) {
    Request request(2);
    EXPECT_EQ(answer(request.withRow(row_)), 0);
    EXPECT_EQ(request.answer().type, ASN_OCTET_STR);
    EXPECT_EQ(bytesOf(request.answer()), "one");
}

TEST_F(FinalHandler, AnswersAnAddressInNetworkOrderAsFourBytes) {
    Request request(1);
    answer(request.withRow(row_));
    EXPECT_EQ(request.answer().type, ASN_IPADDRESS);
    EXPECT_EQ(bytesOf(request.answer()), std::string("\x0a\0\0\x01", 4));
}

TEST_F(FinalHandler, AnswersAMissingValueAsNullAndNotAsAnError) {
    Request request(3);
    answer(request.withRow(row_));
    EXPECT_EQ(request.answer().type, ASN_NULL);
    EXPECT_EQ(request.answer().val_len, 0U);
}

TEST_F(FinalHandler, KnowsNoColumnOutsideTheTable) {
    for (const unsigned column : {0U, 4U, 5U, 4294967295U}) {
        Request request(column);
        EXPECT_EQ(answer(request.withRow(row_)), 0);
        EXPECT_EQ(request.answer().type, SNMP_NOSUCHINSTANCE) << column;
    }
}

TEST_F(FinalHandler, HasNoInstanceWithoutARow) {
    Request request(1);
    EXPECT_EQ(answer(request), 0);
    EXPECT_EQ(request.answer().type, SNMP_NOSUCHINSTANCE);
}

TEST_F(FinalHandler, LeavesARequestWithoutTableInformationAlone) {
    Request request(1);
    request.withoutTableInfo();
    answer(request.withRow(row_));
    EXPECT_EQ(request.answer().type, ASN_NULL);
}

TEST_F(FinalHandler, SkipsWhatIsProcessedAndGoesOn) {
    Request first(2);
    Request second(2);
    first.withRow(row_).setProcessed();
    first.setNext(second);
    second.withRow(row_);
    answer(first);
    EXPECT_EQ(first.answer().type, ASN_NULL);
    EXPECT_EQ(bytesOf(second.answer()), "one");
}

TEST_F(FinalHandler, GoesOnAfterAMissingRow) {
    Request first(2);
    Request second(2);
    first.setNext(second);
    second.withRow(row_);
    answer(first);
    EXPECT_EQ(first.answer().type, SNMP_NOSUCHINSTANCE);
    EXPECT_EQ(bytesOf(second.answer()), "one");
}

TEST_F(FinalHandler, AnswersNothingButGets) {
    for (const int mode : {int{MODE_GETNEXT}, int{MODE_GETBULK}, MODE_SET_RESERVE1, MODE_SET_COMMIT}) {
        Request request(2);
        EXPECT_EQ(answer(request.withRow(row_), mode), 0);
        EXPECT_EQ(request.answer().type, ASN_NULL) << mode;
    }
}

}  // namespace
