#include "agent/backends/lxc/ContainerRecord.h"

#include <fmt/format.h>

#include "wire/Protocol.h"

namespace kx::agent::lxc {

Environment environmentOf(const ContainerRecord& record) {
    Environment environment;
    environment.eid = record.eid;
    environment.type = kContainerType;
    environment.state = static_cast<std::int32_t>(record.status.state);
    environment.transition = static_cast<std::int32_t>(record.status.transition);
    environment.name = record.name;
    environment.veid = record.veid;
    // A container without a configured name gets its own name from LXC.
    environment.hostname = record.hostname.empty() ? record.name : record.hostname;
    environment.description = record.notes.description;
    environment.osTemplate = record.os;
    environment.baseSample = record.notes.baseSample;
    environment.templates = record.notes.templates;
    environment.addresses = record.life.addresses ? record.life.addresses : record.configured;
    if (record.life.addresses) {
        environment.inet6Addresses = record.life.inet6Addresses;
    }
    return environment;
}

void takeNotes(ContainerRecord& record, const std::string& path, const FileText& file, const LogSink& log) {
    const std::string logged = fmt::format("{}/{}/kx.toml", path, wire::printable(record.name));
    const bool fresh = file.stamp != record.notesStamp;
    record.notesStamp = file.stamp;
    std::string problem;
    if (file.missing) {
        record.notes = {};
    } else if (!file.text) {
        problem = fmt::format("{}: {}", logged, file.problem);
    } else {
        auto parsed = parseContainerNotes(*file.text);
        if (auto* notes = std::get_if<ContainerNotes>(&parsed)) {
            record.notes = std::move(*notes);
        } else if (const auto* error = std::get_if<NotesError>(&parsed)) {
            problem = fmt::format("{}:{}:{}: {}", logged, error->line, error->column, error->message);
        }
    }
    if (!problem.empty() && (fresh || problem != record.notesProblem)) {
        log(Severity::Error, problem + "; the file is ignored, what was last good stays");
    }
    record.notesProblem = problem;
}

}  // namespace kx::agent::lxc
