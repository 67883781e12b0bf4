// A terminal as an application uses it, on the real clock.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <string>

namespace test {

inline void makeRaw(int terminal) {
    termios settings{};
    tcgetattr(terminal, &settings);
    cfmakeraw(&settings);
    tcsetattr(terminal, TCSANOW, &settings);
}

// What comes up to `text`, or until nothing comes for so long.
inline std::string readUntil(int terminal, const std::string& text, int patienceMs) {
    std::string seen;
    for (pollfd entry{terminal, POLLIN, 0}; !seen.ends_with(text) && poll(&entry, 1, patienceMs) > 0;) {
        char byte;
        if (read(terminal, &byte, 1) == 1) seen += byte;
    }
    return seen;
}

}  // namespace test
