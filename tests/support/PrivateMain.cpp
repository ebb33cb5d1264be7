// Runs the tests in a mount namespace of their own with an empty /var/opt, so that neither an agent of the host is
// reached nor anything of the host is written.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

void writeFile(const char* path, const std::string& text) {
    std::ofstream(path) << text;
}

bool enterNamespace() {
    if (::geteuid() == 0) {
        return ::unshare(CLONE_NEWNS) == 0;
    }
    const std::string uid = std::to_string(::geteuid());
    const std::string gid = std::to_string(::getegid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", "0 " + uid + " 1");
    writeFile("/proc/self/gid_map", "0 " + gid + " 1");
    return true;
}

bool hideHost() {
    return enterNamespace() && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/var/opt", "tmpfs", 0, nullptr) == 0 &&
           std::filesystem::create_directories("/var/opt/orma/agent");
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!hideHost()) {
        std::perror("cannot make a private mount namespace");
        return 1;
    }
    return RUN_ALL_TESTS();
}
