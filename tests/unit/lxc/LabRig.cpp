#include "tests/unit/lxc/LabRig.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/capability.h>
#include <sched.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "agent/backends/lxc/CgroupTree.h"
#include "agent/backends/lxc/CommandSocket.h"
#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;

/// A loaded machine may take its time over a lab command; that is not what is measured.
constexpr milliseconds kCommandLimit{30'000};

std::string outputOf(const std::string& command, int& status) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), [](FILE*) { return 0; });
    std::string output;
    char buffer[256];
    while (pipe && ::fgets(buffer, sizeof buffer, pipe.get()) != nullptr) {
        output += buffer;
    }
    status = ::pclose(pipe.get());
    return output;
}

/// Holds one lab for the whole run. The lab goes down when the pipe to it ends, however this process ends.
class Lab : public ::testing::Environment {
public:
    void SetUp() override {
        int status = 0;
        const std::string reason = outputOf(std::string(KX_LXCLAB) + " check", status);
        if (status != 0) {
            GTEST_SKIP() << "no LXC lab here: " << reason;
        }
        hold();
        ASSERT_GT(labPid_, 0) << "the lab did not come up";
        enter("mnt");
        enter("net");
    }

    void TearDown() override {
        input_.reset();
        if (pid_ > 0) {
            ::waitpid(pid_, nullptr, 0);
        }
    }

private:
    void hold() {
        int input[2];
        int output[2];
        ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
        ASSERT_EQ(::pipe2(output, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        std::string program = KX_LXCLAB;
        std::string verb = "hold";
        char* words[] = {program.data(), verb.data(), nullptr};
        ASSERT_EQ(::posix_spawn(&pid_, KX_LXCLAB, &actions, nullptr, words, environ), 0);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(input[0]);
        ::close(output[1]);
        input_ = OwnedDescriptor(input[1]);
        const std::unique_ptr<FILE, int (*)(FILE*)> ready(::fdopen(output[0], "r"), ::fclose);
        if (::fscanf(ready.get(), "ready %d", &labPid_) != 1) {
            labPid_ = -1;
        }
    }

    void enter(const char* kind) const {
        const OwnedDescriptor space(::open(fmt::format("/proc/{}/ns/{}", labPid_, kind).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::setns(space.get(), 0), 0) << kind;
    }

    pid_t pid_ = -1;
    int labPid_ = -1;
    OwnedDescriptor input_;
};

/// @return what the calling thread's lower 32 effective capabilities were before
std::uint32_t changeEffective(const std::function<std::uint32_t(std::uint32_t)>& change) {
    __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
    if (::syscall(SYS_capget, &head, sets) != 0) {
        throw std::runtime_error("capget");
    }
    const std::uint32_t before = sets[0].effective;
    sets[0].effective = change(before);
    if (::syscall(SYS_capset, &head, sets) != 0) {
        throw std::runtime_error("capset");
    }
    return before;
}

const auto* const lab_environment = ::testing::AddGlobalTestEnvironment(std::make_unique<Lab>().release());

}  // namespace

Command::Command(const std::vector<std::string>& words) {
    std::vector<std::string> copies = words;
    std::vector<char*> arguments;
    for (std::string& word : copies) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    if (::posix_spawnp(&pid_, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) {
        throw std::runtime_error("cannot run " + words[0]);
    }
}

Command::~Command() {
    if (!ended()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

bool Command::ended() {
    if (pid_ > 0 && ::waitpid(pid_, &status_, WNOHANG) == pid_) {
        pid_ = -1;
    }
    return pid_ <= 0;
}

std::vector<std::string> lab(const std::vector<std::string>& words) {
    std::vector<std::string> command{KX_LXCLAB};
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

LabHost::LabHost(std::string path) : work_(io_.get_executor()) {
    const auto log = [this](Severity, const std::string& line) {
        const std::lock_guard lock(logMutex_);
        log_.push_back(line);
        fmt::print("[  logged   ] {}\n", line);
    };
    backend_ = makeLxcBackend(io_, {std::move(path), state_.path(), "the-machine", kLabVersion}, *this, log);
}

LabHost::~LabHost() {
    backend_->stop();
}

void LabHost::hostChanged(HostImage image) {
    latest_ = std::move(image);
    ++images_;
    past_.insert(past_.end(), latest_.environments.begin(), latest_.environments.end());
}

bool LabHost::waitUntil(const std::function<bool()>& condition, milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        io_.run_one_for(milliseconds(2));
    }
    return true;
}

bool LabHost::run(const std::vector<std::string>& words) {
    Command command(words);
    return waitUntil([&] { return command.ended(); }, kCommandLimit) && command.status() == 0;
}

void LabHost::act(const std::vector<std::string>& words, const std::function<bool()>& seen) {
    const auto begin = Clock::now();
    Command command(lab(words));
    Clock::time_point seenAt{};
    const auto look = [&] {
        if (seenAt == Clock::time_point{} && seen()) {
            seenAt = Clock::now();
        }
        return seenAt != Clock::time_point{};
    };
    const bool ended = waitUntil([&] { return look(), command.ended(); }, kCommandLimit);
    const auto end = Clock::now();
    ASSERT_TRUE(ended && command.status() == 0) << words[0] << " " << words[1];
    ASSERT_TRUE(waitUntil(look)) << words[0] << " " << words[1] << " was not noticed";
    lag_ = seenAt - end;
    const auto ms = [](Clock::duration span) { return std::chrono::duration<double, std::milli>(span).count(); };
    fmt::print("[  measured ] {:<9} {:<6} seen {:6.1f} ms after its start, {:+6.1f} ms from its end\n", words[0],
               words[1], ms(seenAt - begin), ms(lag_));
}

const Environment* LabHost::find(const std::string& name) const {
    const auto& all = latest_.environments;
    const auto found = std::find_if(all.begin(), all.end(), [&](const Environment& one) { return one.name == name; });
    return found != all.end() ? &*found : nullptr;
}

bool LabHost::is(const std::string& name, State state, Transition transition) const {
    const Environment* one = find(name);
    return one != nullptr && one->state == static_cast<std::int32_t>(state) &&
           one->transition == static_cast<std::int32_t>(transition);
}

bool LabHost::was(const std::string& name, State state, Transition transition) const {
    return std::any_of(past_.begin(), past_.end(), [&](const Environment& one) {
        return one.name == name && one.state == static_cast<std::int32_t>(state) &&
               one.transition == static_cast<std::int32_t>(transition);
    });
}

std::vector<Environment> LabHost::pastOf(const std::string& name) const {
    std::vector<Environment> result;
    std::copy_if(past_.begin(), past_.end(), std::back_inserter(result),
                 [&](const Environment& one) { return one.name == name; });
    return result;
}

std::size_t LabHost::logged(const std::string& part) const {
    const std::lock_guard lock(logMutex_);
    return static_cast<std::size_t>(std::count_if(
        log_.begin(), log_.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

void writeFile(const std::string& path, const std::string& text, bool append) {
    if (append) {
        std::ofstream(path, std::ios::app) << text;
        return;
    }
    const std::filesystem::path place(path);
    const std::filesystem::path fresh = place.parent_path() / ("." + place.filename().string() + ".fresh");
    std::ofstream(fresh) << text;
    std::filesystem::rename(fresh, place);
}

void tellKernel(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

pid_t initOf(const std::string& name) {
    int status = 0;
    return std::atoi(outputOf("lxc-info -pH -n " + name, status).c_str());
}

pid_t parentOf(pid_t pid) {
    std::ifstream status(fmt::format("/proc/{}/status", pid));
    for (std::string word; status >> word;) {
        if (word == "PPid:" && status >> pid) {
            return pid;
        }
    }
    return -1;
}

void tellFreezer(pid_t init, bool freeze) {
    const auto files = CgroupTree::read().freezerOf(init);
    ASSERT_TRUE(files);
    if (files->state.empty()) {
        tellKernel(files->freeze, freeze ? "1" : "0");
    } else {
        tellKernel(files->state, freeze ? "FROZEN" : "THAWED");
    }
}

std::vector<std::string> ipCommand(pid_t process, const std::vector<std::string>& words) {
    std::vector<std::string> command{"nsenter", "--net", "--target", std::to_string(process), "--", "ip"};
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

WithoutCapability::WithoutCapability(unsigned number) {
    effective_ = changeEffective([&](std::uint32_t before) { return before & ~(1U << number); });
}

WithoutCapability::~WithoutCapability() {
    changeEffective([&](std::uint32_t) { return effective_; });
}

void LabTest::SetUp() {
    ASSERT_TRUE(std::filesystem::is_empty(kLabPath)) << "left by the test before";
}

void LabTest::TearDown() {
    host_.stop();
    const auto sockets = presentCommandSockets();
    for (const auto& folder : std::filesystem::directory_iterator(kLabPath)) {
        const std::string name = folder.path().filename();
        if (sockets.count(commandSocketName(kLabPath, name)) != 0) {
            EXPECT_TRUE(host_.run({"lxc-stop", "-k", "-n", name}));
        }
    }
    for (const auto& entry : std::filesystem::directory_iterator(kLabPath)) {
        std::filesystem::remove_all(entry.path());
    }
}

void LabTest::make(const std::string& name, const std::string& hostname) {
    std::vector<std::string> words{"create", name};
    if (!hostname.empty()) {
        words.push_back(hostname);
    }
    ASSERT_TRUE(host_.run(lab(words)));
}

}  // namespace kx::agent::lxc
