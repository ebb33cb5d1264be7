#include "agent/core/Config.h"

#include <fmt/format.h>
#include <sys/un.h>

#include <toml++/toml.h>
#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <sstream>

#include "agent/base/File.h"
#include "agent/base/TomlGuard.h"

namespace kx::agent {
namespace {

constexpr std::size_t kMaxConfigBytes = std::size_t{1024} * 1024;
constexpr double kMaxPeriodScale = 1000.0;

/// Bytes of a socket's path that fit into its address, without the closing zero byte.
constexpr std::size_t kMaxSocketPathBytes = sizeof(sockaddr_un::sun_path) - 1;

/// Takes the settings out of a parsed file and notices what nobody asked for.
class Reader {
public:
    Reader(const std::string& fileName, Config& config) : fileName_(fileName), config_(config) {}

    void readAll(const toml::table& root) {
        using Keys = std::initializer_list<std::pair<std::string_view, Handler>>;
        const auto path = [this](std::string& into) { return [this, &into](const Node& n) { into = pathOf(n); }; };
        readTable(root, "",
                  Keys{{"socket", [this](const Node& node) { config_.socket = socketPathOf(node); }},
                       {"state_directory", path(config_.stateDirectory)},
                       {"backend", [this](const Node& node) { config_.backend = backendOf(node); }},
                       {"lxc", section("lxc", {{"path", path(config_.lxcPath)}})},
                       {"simulated", section("simulated", {{"inventory", path(config_.inventory)}})},
                       {"monitoring",
                        section("monitoring",
                                {{"period_scale", [this](const Node& node) { config_.periodScale = scaleOf(node); }}})},
                       {"alerts", alertsSection()}});
    }

    [[noreturn]] void fail(const toml::source_position& at, const std::string& what) const {
        throw ConfigError(fmt::format("{}:{}:{}: {}", fileName_, at.line, at.column, what));
    }

private:
    struct Node {
        std::string name;  ///< with its section, e.g. "lxc.path"
        const toml::node& value;
    };
    using Handler = std::function<void(const Node&)>;

    [[noreturn]] void fail(const Node& node, const std::string& what) const {
        fail(node.value.source().begin, fmt::format("\"{}\" {}", node.name, what));
    }

    Handler section(std::string name, std::vector<std::pair<std::string_view, Handler>> handlers) {
        return [this, name = std::move(name), handlers = std::move(handlers)](const Node& node) {
            const toml::table* table = node.value.as_table();
            if (table == nullptr) {
                fail(node, "must be a table");
            }
            readTable(*table, name + ".", handlers);
        };
    }

    Handler alertsSection() {
        AlertLimits& limits = config_.alerts;
        return section("alerts",
                       {{"repeat_seconds",
                         [this, &limits](const Node& node) {
                             const double most = std::chrono::duration<double>(AlertLimits::kMaxRepeat).count();
                             const std::chrono::duration<double> seconds(numberOf(node, 0.0, most));
                             limits.repeat = std::chrono::round<std::chrono::milliseconds>(seconds);
                         }},
                        {"per_second",
                         [this, &limits](const Node& node) {
                             limits.perSecond = numberOf(node, AlertLimits::kMinPerSecond, AlertLimits::kMaxPerSecond);
                         }},
                        {"burst", [this, &limits](const Node& node) { limits.burst = burstOf(node); }}});
    }

    template <typename Handlers>
    void readTable(const toml::table& table, const std::string& prefix, const Handlers& handlers) {
        for (const auto& [key, value] : table) {
            const auto known = std::find_if(handlers.begin(), handlers.end(),
                                            [&key = key](const auto& handler) { return handler.first == key.str(); });
            if (known == handlers.end()) {
                fail(key.source().begin, fmt::format("there is no setting \"{}{}\"", prefix, key.str()));
            }
            known->second(Node{prefix + std::string(key.str()), value});
        }
    }

    std::string textOf(const Node& node) const {
        const auto* text = node.value.as_string();
        if (text == nullptr) {
            fail(node, "must be a text");
        }
        if (text->get().find('\0') != std::string::npos) {
            fail(node, "must not contain a zero byte");
        }
        return text->get();
    }

    std::string pathOf(const Node& node) const {
        std::string path = textOf(node);
        if (path.empty() || path.front() != '/') {
            fail(node, "must be an absolute path");
        }
        return path;
    }

    std::string socketPathOf(const Node& node) const {
        std::string path = pathOf(node);
        if (path.size() > kMaxSocketPathBytes) {
            fail(node, fmt::format("is too long for a socket, which has {} bytes", kMaxSocketPathBytes));
        }
        if (path.back() == '/') {
            fail(node, "must name a file, not a folder");
        }
        return path;
    }

    BackendKind backendOf(const Node& node) const {
        const std::string text = textOf(node);
        if (text == "auto") {
            return BackendKind::Auto;
        }
        if (text == "lxc") {
            return BackendKind::Lxc;
        }
        if (text == "simulated") {
            return BackendKind::Simulated;
        }
        fail(node, "must be \"auto\", \"lxc\" or \"simulated\"");
    }

    double scaleOf(const Node& node) const {
        if (!node.value.is_number()) {
            fail(node, "must be a number");
        }
        const double scale = node.value.value<double>().value_or(0.0);
        // Written so that "nan" is refused too.
        if (!(scale > 0.0 && scale <= kMaxPeriodScale)) {
            fail(node, fmt::format("must be above 0 and at most {}", kMaxPeriodScale));
        }
        return scale;
    }

    double numberOf(const Node& node, double least, double most) const {
        if (!node.value.is_number()) {
            fail(node, "must be a number");
        }
        const double number = node.value.value<double>().value_or(least - 1.0);
        // Written so that "nan" is refused too.
        if (!(number >= least && number <= most)) {
            fail(node, fmt::format("must be at least {} and at most {}", least, most));
        }
        return number;
    }

    std::uint32_t burstOf(const Node& node) const {
        const auto* number = node.value.as_integer();
        if (number == nullptr) {
            fail(node, "must be a whole number");
        }
        if (number->get() < 1 || number->get() > AlertLimits::kMaxBurst) {
            fail(node, fmt::format("must be at least 1 and at most {}", AlertLimits::kMaxBurst));
        }
        return static_cast<std::uint32_t>(number->get());
    }

    const std::string& fileName_;
    Config& config_;
};

}  // namespace

std::string systemLxcPath(const std::string& file) {
    std::string problem;
    std::istringstream lines(readRegularFile(file, kMaxConfigBytes, problem).value_or(std::string()));
    std::string path = Config().lxcPath;
    for (std::string line; std::getline(lines, line);) {
        std::replace(line.begin(), line.end(), '=', ' ');
        std::istringstream words(line);
        std::string key;
        std::string value;
        if (words >> key >> value && key == "lxc.lxcpath" && value.front() == '/') {
            path = value;
        }
    }
    return path;
}

Config parseConfig(std::string_view text, const std::string& fileName, Config config) {
    Reader reader(fileName, config);
    if (const auto fault = findUnparsable(text)) {
        throw ConfigError(fmt::format("{}:{}:{}: {}", fileName, fault->line, fault->column, fault->message));
    }
    try {
        reader.readAll(toml::parse(text, fileName));
    } catch (const toml::parse_error& error) {
        reader.fail(error.source().begin, std::string(error.description()));
    }
    return config;
}

Config loadConfig(const std::string& path, bool mustExist) {
    Config defaults;
    defaults.lxcPath = systemLxcPath();
    std::error_code error;
    if (!mustExist && !std::filesystem::exists(std::filesystem::symlink_status(path, error)) &&
        (!error || error == std::errc::no_such_file_or_directory)) {
        return defaults;
    }
    std::string problem;
    const auto text = readRegularFile(path, kMaxConfigBytes, problem);
    if (!text) {
        throw ConfigError(problem);
    }
    return parseConfig(*text, path, defaults);
}

}  // namespace kx::agent
