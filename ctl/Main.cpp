// kxctl: the operator's command.
#include <csignal>
#include <string>

#include <kxl/KXLLog.h>

#include "ctl/Console.h"
#include "ctl/Printable.h"
#include "ctl/Program.h"

namespace {

/// What the client library has to say of the agent. Called on any thread.
void showLibraryLine(int /*priority*/, const char* line) {
    kx::ctl::complain(kx::ctl::printable(line));
}

}  // namespace

int main(int argc, char** argv) {
    kx::ctl::reserveStandardDescriptors();
    // A reader that goes is an error of writing, not the end of the process.
    std::signal(SIGPIPE, SIG_IGN);
    setKXLLogHandler(showLibraryLine);
    return static_cast<int>(kx::ctl::runProgram(argc, argv));
}
