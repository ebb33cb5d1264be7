#include "ctl/commands/TopCommand.h"

#include <limits>

#include "ctl/Numbers.h"
#include "ctl/top/TopWatch.h"

namespace kx::ctl {
namespace {

constexpr double kShortestSeconds = 0.1;
constexpr double kLongestSeconds = 3600;

}  // namespace

ExitCode runTop(const TopArguments& typed, const CommonOptions& common) {
    TopOptions options;
    options.order = static_cast<TopOrder>(readWord("--sort", typed.sort, topOrderWords()));
    options.isReversed = typed.reverse;
    const double seconds = readDecimal("--interval", typed.interval, kShortestSeconds, kLongestSeconds);
    options.interval = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
    options.json = typed.json;
    if (typed.count) {
        options.count = readNumber("--count", *typed.count, 1, std::numeric_limits<std::int64_t>::max());
    }
    if (typed.once) {
        options.count = 1;
    }
    return watchTop(options, common);
}

}  // namespace kx::ctl
