// The terminal while kxctl top draws on it.
#pragma once

#include <termios.h>

#include <string>
#include <vector>

#include "ctl/Output.h"

namespace kx::ctl {

/// @brief Takes the terminal over: another screen, no cursor, keys without Enter and unseen. Gives it back as it was
/// when it is destroyed, and when the program crashes. One at a time, on the main thread.
class TopTerminal {
public:
    /// @param input where keys come from; need not be a terminal
    /// @param output the terminal
    TopTerminal(int input, Output& output);
    ~TopTerminal();
    TopTerminal(const TopTerminal&) = delete;
    TopTerminal& operator=(const TopTerminal&) = delete;

    /// @brief Gives the terminal back until the next enter(). Does nothing when it has been given back.
    void leave();
    void enter();

    /// @brief Draws over what is there, without a flicker.
    Output::Result draw(const std::vector<std::string>& lines);

private:
    const int input_;
    Output& output_;
    bool isTaken_ = false;
};

}  // namespace kx::ctl
