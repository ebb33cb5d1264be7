#include "ctl/commands/DoctorCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "ctl/Json.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/doctor/AgentChecks.h"
#include "ctl/doctor/HostChecks.h"
#include "ctl/view/Paint.h"
#include "ctl/view/Terminal.h"
#include "ctl/view/TextWidth.h"

namespace kx::ctl {
namespace {

const char* wordOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Ok:
            return "OK";
        case Verdict::Warn:
            return "WARN";
        case Verdict::Fail:
            break;
    }
    return "FAIL";
}

Paint paintOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Ok:
            return Paint::Green;
        case Verdict::Warn:
            return Paint::Yellow;
        case Verdict::Fail:
            break;
    }
    return Paint::Red;
}

Findings examine(const DoctorArguments& typed, const std::string& socket) {
    AgentReport agent = examineAgent(socket);
    Findings all = std::move(agent.findings);
    for (const Findings& more : {examineHost(typed.lxcFolder), examineSnmp(typed.places, agent.eid)}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

Json reportJson(const Findings& findings, bool isOk) {
    Json checks = Json::array();
    for (const Finding& finding : findings) {
        Json one;
        one.put("check", finding.about);
        one.put("result", wordOf(finding.verdict));
        one.put("words", finding.words);
        if (!finding.todo.empty()) {
            one.put("todo", finding.todo);
        }
        checks.add(one);
    }
    Json document;
    document.put("ok", isOk);
    document.put("checks", checks);
    return document;
}

/// What to do stands in a line of its own where a terminal would break the line in the middle of a word.
std::vector<std::string> linesOf(const Finding& finding, std::optional<std::size_t> room, const Painter& painter) {
    constexpr std::size_t kAboutWidth = 13;
    constexpr std::size_t kIndent = 4 + 2 + kAboutWidth + 2;
    const std::string line =
        fmt::format("{}  {}  {}", painter(fmt::format("{:<4}", wordOf(finding.verdict)), paintOf(finding.verdict)),
                    filled(finding.about, kAboutWidth), finding.words);
    if (finding.todo.empty()) {
        return {line};
    }
    if (room && kIndent + widthOf(finding.words + ": " + finding.todo) > *room) {
        return {line + ":", std::string(kIndent, ' ') + finding.todo};
    }
    return {line + ": " + finding.todo};
}

}  // namespace

ExitCode runDoctor(const DoctorArguments& typed, const CommonOptions& common) {
    // What begins like an option would be taken for one by the tool that asks.
    if (typed.places.address.empty() || typed.places.address.front() == '-') {
        throw Failure(ExitCode::WrongUsage,
                      fmt::format("--snmp-address: {} is no address", printableWord(typed.places.address)));
    }
    if (!typed.places.options.empty() && typed.places.options.front().rfind('-', 0) != 0) {
        throw Failure(ExitCode::WrongUsage, fmt::format("{} is no option of snmpget; the SNMP agent's address goes to "
                                                        "--snmp-address",
                                                        printableWord(typed.places.options.front())));
    }
    const Findings findings = examine(typed, common.socket);
    const bool isOk = std::none_of(findings.begin(), findings.end(),
                                   [](const Finding& finding) { return finding.verdict == Verdict::Fail; });
    Output output(STDOUT_FILENO, -1);
    if (typed.json) {
        output.writeLine(reportJson(findings, isOk).line());
    } else {
        const Painter painter(wantsColors(output.descriptor(), common.noColor));
        for (const Finding& finding : findings) {
            output.writeLines(linesOf(finding, tableRoom(output.descriptor()), painter));
        }
    }
    return isOk ? ExitCode::Done : ExitCode::Refused;
}

}  // namespace kx::ctl
