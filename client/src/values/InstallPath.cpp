#include <kxl/KXLInstallPath.h>

#include <mutex>
#include <set>
#include <string>

namespace {

constexpr const char* installFolder = "/opt/orma/agent/";

}  // namespace

const char* getAgentInstallPathHard(const char* name, bool absolute) {
    if (name == nullptr) {
        return nullptr;
    }
    // Callers keep the pointer as long as they like: every path ever asked for is kept, one of each.
    static std::mutex mutex;
    static std::set<std::string> paths;
    const std::lock_guard guard(mutex);
    return paths.insert(absolute ? installFolder + std::string(name) : std::string(name)).first->c_str();
}
