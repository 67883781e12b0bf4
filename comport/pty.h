// A pseudo-terminal that stands for a serial port: the master end, its packet mode, its name and a stable link to it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "comport/bridge.h"
#include "comport/unique_fd.h"

namespace comport {

class Pty : public Terminal {
public:
    // Opens a raw terminal. Throws std::runtime_error with a sentence that says what is wrong, as does publish().
    // `group` may use it, too; none: as the system has it.
    explicit Pty(std::filesystem::path link, std::optional<gid_t> group = std::nullopt);
    // Removes the link if it is still this terminal's.
    ~Pty() override;
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    // Puts the symbolic link in place (replacing a link, nothing else): from now on applications find the terminal.
    void publish();

    int master() const { return master_.get(); }
    const std::string& path() const { return path_; }
    const std::filesystem::path& link() const { return link_; }

    // Nobody has the terminal open (this object's own hold counts as somebody).
    bool hungUp() const;

    // Refuses further openers from now on, as far as the kernel does (root is never refused). Holds the terminal open
    // itself meanwhile, so that hungUp() is not to be seen.
    void hold();
    void release();
    bool held() const { return holder_.valid(); }
    // Lets everybody open it again after the last close. False: an application left it closed to others; make a new one.
    bool admitAll();

    // Terminal
    TerminalInput read(std::span<std::uint8_t> space) override;
    std::size_t waiting() override;
    std::size_t write(std::span<const std::uint8_t> bytes) override;
    LineSettings settings() override;
    void discardWritten() override;

private:
    void makeRaw();
    UniqueFd openSlave() const;
    void keepEvents();
    TerminalInput readOnce(std::span<std::uint8_t> space);

    std::filesystem::path link_;
    UniqueFd master_;
    UniqueFd holder_;
    std::string path_;
    unsigned pendingEvents_ = 0;  // came behind data that had to be handed on first
};

}  // namespace comport
