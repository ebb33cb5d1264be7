#include "ctl/commands/AlertText.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "ctl/ExitCode.h"
#include "ctl/Printable.h"

namespace kx::ctl {
namespace {

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw Failure(ExitCode::WrongUsage, fmt::format("--text-file: {}: {}", printable(path), why));
}

/// Closes what it opened, which standard input is not.
class InputFile {
public:
    explicit InputFile(const std::string& path)
        : isOwn_(path != "-"), descriptor_(isOwn_ ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO) {}
    ~InputFile() {
        if (isOwn_ && descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    int descriptor() const { return descriptor_; }

private:
    const bool isOwn_;
    const int descriptor_;
};

}  // namespace

std::string readAlertText(const std::string& path) {
    const InputFile file(path);
    if (file.descriptor() < 0) {
        fail(path, std::strerror(errno));
    }
    std::string text;
    std::array<char, 65536> part{};
    while (text.size() <= kMaxAlertFileBytes) {
        const ssize_t count = ::read(file.descriptor(), part.data(), part.size());
        if (count == 0) {
            return text;
        }
        if (count > 0) {
            text.append(part.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            fail(path, std::strerror(errno));
        }
    }
    fail(path, fmt::format("it has more than {} bytes", kMaxAlertFileBytes));
}

}  // namespace kx::ctl
