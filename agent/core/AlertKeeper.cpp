#include "agent/core/AlertKeeper.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "agent/base/File.h"
#include "agent/base/Log.h"

namespace kx::agent {
namespace {

constexpr std::size_t kMaxBytes = std::size_t{256} * 1024 * 1024;

}  // namespace

AlertKeeper::AlertKeeper(boost::asio::io_context& io, const std::string& folder, std::function<AlertState()> collect)
    : folder_(folder), path_(std::filesystem::path(folder) / kFileName), collect_(std::move(collect)), timer_(io) {}

AlertState AlertKeeper::load() {
    std::error_code error;
    if (!std::filesystem::exists(path_, error)) {
        return {};
    }
    std::string problem = "its content is damaged";
    const auto bytes = readRegularFile(path_, kMaxBytes, problem);
    auto state = bytes ? decodeState(*bytes) : std::nullopt;
    if (!state) {
        const std::string aside = path_ + ".damaged";
        std::rename(path_.c_str(), aside.c_str());
        log::error(fmt::format("{}: alerts that were kept are lost: {}; the file is moved to {} if possible", path_,
                               problem, aside));
    }
    return state ? std::move(*state) : AlertState();
}

void AlertKeeper::changed() {
    if (std::exchange(isDue_, true)) {
        return;
    }
    timer_.expires_after(delay_);
    timer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) {
            save();
        }
    });
}

void AlertKeeper::save() {
    const auto begun = std::chrono::steady_clock::now();
    isDue_ = false;
    std::string bytes = encodeState(collect_());
    if (bytes == saved_) {
        return;
    }
    std::string problem = makeFolders(folder_);
    if (problem.empty()) {
        problem = replaceFile(path_, bytes, false);
    }
    if (!problem.empty() && problem != problem_) {
        log::error(fmt::format("alerts that are not delivered will not survive a restart: {}", problem));
    }
    saved_ = problem.empty() ? std::move(bytes) : std::string();
    problem_ = std::move(problem);
    const std::chrono::steady_clock::duration taken = std::chrono::steady_clock::now() - begun;
    delay_ = std::clamp<std::chrono::steady_clock::duration>(10 * taken, kDelay, kMaxDelay);
}

}  // namespace kx::agent
