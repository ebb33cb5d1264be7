#include "ctl/Console.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace kx::ctl {

void note(std::string_view words) {
    std::string line(words);
    line += '\n';
    // Where standard error cannot be written to there is nobody to tell that to.
    [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
}

void complain(std::string_view words) {
    note("kxctl: " + std::string(words));
}

void reserveStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) != -1) {
            continue;
        }
        // The lowest free number is this one. Opened for the other direction, so that using it is an error.
        if (::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) != descriptor) {
            std::abort();
        }
    }
}

}  // namespace kx::ctl
