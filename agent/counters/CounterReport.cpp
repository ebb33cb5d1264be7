#include "agent/counters/CounterReport.h"

#include "wire/Protocol.h"

namespace kx::agent {
namespace {

/// A frame that has come to this takes no further row. The limit of the wire is four times as much, and a single row
/// far below the difference.
constexpr std::size_t kFrameBytes = std::size_t{4} * 1024 * 1024;

/// Fills frames, beginning a new one whenever one is full.
class ReportWriter {
public:
    ReportWriter(std::uint64_t monitor, std::uint64_t timeMs) : monitor_(monitor), timeMs_(timeMs) { begin(); }

    void beginTable(const CounterTable& table) {
        table_ = &table;
        group_ = nullptr;
    }

    void add(const CounterRow& row, const std::vector<CounterSampleValues>& values) {
        if (bytes_ >= kFrameBytes) {
            end(true);
            begin();
        }
        if (group_ == nullptr) {
            beginGroup();
        }
        group_->mutable_eids()->append(row.eid.toWire());
        group_->add_instances(row.instance);
        for (const CounterSampleValues& value : values) {
            group_->add_values(value.first);
            group_->add_values(value.second);
            group_->add_values(value.third);
        }
        bytes_ += wire::kEidBytes + row.instance.size() + values.size() * sizeof(CounterSampleValues);
    }

    std::vector<FrameBody> finish() {
        end(false);
        return std::move(bodies_);
    }

private:
    void begin() {
        frame_.Clear();
        frame_.mutable_counter_sample()->set_monitor(monitor_);
        frame_.mutable_counter_sample()->set_time_ms(timeMs_);
        group_ = nullptr;
        bytes_ = 0;
    }

    void beginGroup() {
        group_ = frame_.mutable_counter_sample()->add_groups();
        group_->set_class_name(table_->className);
        for (const std::string& name : *table_->names) {
            group_->add_counters(name);
        }
        for (const std::string& name : table_->unknown) {
            group_->add_unknown(name);
        }
    }

    void end(bool continued) {
        frame_.mutable_counter_sample()->set_continued(continued);
        bodies_.push_back(encodeBody(frame_));
    }

    const std::uint64_t monitor_;
    const std::uint64_t timeMs_;
    const CounterTable* table_ = nullptr;
    wire::Frame frame_;
    wire::CounterGroup* group_ = nullptr;
    std::size_t bytes_ = 0;
    std::vector<FrameBody> bodies_;
};

}  // namespace

std::vector<FrameBody> makeReport(const CounterImage& image, const CounterScope& scope, const CounterKinds& kinds,
                                  const CounterMemory& before, CounterMemory& told, std::uint64_t monitor,
                                  std::uint64_t timeMs) {
    ReportWriter writer(monitor, timeMs);
    for (const CounterTable& table : image.tables) {
        if (scope.classes.count(table.className) == 0) {
            continue;
        }
        const auto increases = kinds.increases(table.className, *table.names);
        writer.beginTable(table);
        for (const CounterRow& row : table.rows) {
            if (!scope.covers(row.eid)) {
                continue;
            }
            writer.add(row, sampleOf(row, table.names, increases, image.taken, before.find(table.className, row),
                                     told.find(table.className, row)));
            told.put(table.className, table.names, row, image.taken);
        }
    }
    told.endTurn(scope);
    return writer.finish();
}

}  // namespace kx::agent
