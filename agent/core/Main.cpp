// kxagentd: the host management agent, in the foreground.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "agent/base/Log.h"
#include "agent/core/Agent.h"

namespace {

constexpr const char* kProgram = "kxagentd " KX_VERSION;
constexpr int kUsageError = 2;

int check(const kx::agent::AgentSettings& settings) {
    const std::string problem = kx::agent::checkConfiguration(settings);
    if (!problem.empty()) {
        kx::agent::log::error(problem);
        return EXIT_FAILURE;
    }
    std::puts("the configuration is good");
    return EXIT_SUCCESS;
}

// Every client and every running container takes a descriptor; the usual soft limit of 1024 is there for select(2),
// which nothing here uses. Where it cannot be raised it stays.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int serve(const kx::agent::AgentSettings& settings) {
    // A client that goes while something is being written to it is the connection's affair.
    std::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    try {
        kx::agent::Agent(settings).run();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        kx::agent::log::error(error.what());
        return EXIT_FAILURE;
    }
}

}  // namespace

// What may be thrown here is lack of memory, before anything was begun; that may end the process as it likes.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    kx::agent::AgentSettings settings{kx::agent::kDefaultConfigFile, false, kProgram};
    bool checkOnly = false;
    CLI::App app("The host management agent: watches the host's containers and serves what it finds to clients.",
                 "kxagentd");
    const auto* config = app.add_option("--config", settings.configFile, "Configuration file")
                             ->option_text("FILE")
                             ->capture_default_str();
    app.add_flag("--check-config", checkOnly, "Look through the configuration, say what is wrong, and exit");
    app.set_version_flag("--version", kProgram);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : kUsageError;
    }
    settings.configMustExist = config->count() > 0;
    return checkOnly ? check(settings) : serve(settings);
}
