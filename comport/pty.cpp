#include "comport/pty.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace comport {

namespace {

constexpr mode_t ownerAndGroup = 0660;
constexpr std::size_t fullRead = 4000;  // what a read gives when there is more: a page less a little

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

short pollNow(int fd, short events) {
    pollfd entry = {fd, events, 0};
    return ::poll(&entry, 1, 0) > 0 ? entry.revents : 0;
}

}  // namespace

Pty::Pty(std::filesystem::path link, std::optional<gid_t> group) : link_(std::move(link)) {
    master_ = UniqueFd(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    char name[128];
    if (!master_.valid() || ::grantpt(master_.get()) != 0 || ::unlockpt(master_.get()) != 0 ||
        ::ptsname_r(master_.get(), name, sizeof(name)) != 0) {
        fail("cannot make a pseudo-terminal; is /dev/pts mounted?");
    }
    path_ = name;
    if (group && (::chown(name, uid_t(-1), *group) != 0 || ::chmod(name, ownerAndGroup) != 0)) {
        fail("cannot give the pseudo-terminal to the group of --group; the server's user must belong to it");
    }
    makeRaw();
    read({});  // the event of that
}

Pty::~Pty() {
    std::error_code ignored;
    if (std::filesystem::read_symlink(link_, ignored) == path_) {
        std::filesystem::remove(link_, ignored);
    }
}

// Raw as cfmakeraw does it (the start and stop characters stay). Packet mode tells what applications do; with EXTPROC it tells
// every change of the settings.
void Pty::makeRaw() {
    UniqueFd slave = openSlave();
    termios2 settings = {};
    if (!slave.valid() || ::ioctl(slave.get(), TCGETS2, &settings) != 0) {
        fail("cannot open the pseudo-terminal " + path_);
    }
    settings.c_iflag &= ~tcflag_t(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    settings.c_oflag &= ~tcflag_t(OPOST);
    settings.c_lflag &= ~tcflag_t(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    settings.c_cflag &= ~tcflag_t(CSIZE | PARENB | CBAUD | (CBAUD << IBSHIFT));
    settings.c_cflag |= CS8 | CREAD | CLOCAL | B115200;
    settings.c_ispeed = settings.c_ospeed = 115200;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    int on = 1;
    if (::ioctl(slave.get(), TCSETS2, &settings) != 0 || ::ioctl(master_.get(), TIOCPKT, &on) != 0) {
        fail("cannot set up the pseudo-terminal " + path_);
    }
    keepEvents();
}

// An application that builds its settings from nothing switches the telling off; it is switched on again here. What it
// sets at this very moment may be overwritten with what it set before.
void Pty::keepEvents() {
    termios2 settings = {};
    if (::ioctl(master_.get(), TCGETS2, &settings) == 0 && (settings.c_lflag & EXTPROC) == 0) {
        settings.c_lflag |= EXTPROC;
        ::ioctl(master_.get(), TCSETS2, &settings);
    }
}

void Pty::publish() {
    std::error_code error;
    auto there = std::filesystem::symlink_status(link_, error);
    if (std::filesystem::exists(there) && !std::filesystem::is_symlink(there)) {
        throw std::runtime_error(link_.string() + " exists and is not a link; choose another --pty-link");
    }
    std::filesystem::path fresh = link_;
    fresh += "." + std::to_string(::getpid());
    std::filesystem::remove(fresh, error);
    std::filesystem::create_symlink(path_, fresh, error);
    if (!error) {
        std::filesystem::rename(fresh, link_, error);
    }
    if (error) {
        throw std::runtime_error("cannot make the link " + link_.string() + ": " + error.message() +
                                 "; choose another --pty-link");
    }
}

UniqueFd Pty::openSlave() const {
    return UniqueFd(::ioctl(master_.get(), TIOCGPTPEER, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}

bool Pty::hungUp() const {
    return pollNow(master_.get(), POLLIN) & POLLHUP;
}

void Pty::hold() {
    if (holder_.valid()) {
        return;
    }
    holder_ = openSlave();
    if (holder_.valid()) {
        ::ioctl(holder_.get(), TIOCEXCL);
    }
}

void Pty::release() {
    if (holder_.valid()) {
        ::ioctl(holder_.get(), TIOCNXCL);
        holder_.reset();
    }
}

bool Pty::admitAll() {
    release();
    UniqueFd slave = openSlave();
    return slave.valid() && ::ioctl(slave.get(), TIOCNXCL) == 0;
}

TerminalInput Pty::readOnce(std::span<std::uint8_t> space) {
    if (space.empty() && !(pollNow(master_.get(), POLLPRI) & POLLPRI)) {
        return {};
    }
    std::uint8_t packet = TIOCPKT_DATA;
    iovec parts[2] = {{&packet, 1}, {space.data(), space.size()}};
    ssize_t length = ::readv(master_.get(), parts, space.empty() ? 1 : 2);
    if (length < 0) {
        // EIO: closed by its last user, and nothing left.
        return {errno == EIO ? TerminalInput::Kind::closed : TerminalInput::Kind::none, 0, 0};
    }
    if (length == 0) {
        return {};
    }
    if (packet == TIOCPKT_DATA) {
        if (length == 1) {
            return {};
        }
        return {TerminalInput::Kind::data, static_cast<std::size_t>(length - 1), 0};
    }
    unsigned events = 0;
    if (packet & TIOCPKT_FLUSHREAD) {
        events |= flushedInput;
    }
    if (packet & TIOCPKT_FLUSHWRITE) {
        events |= flushedOutput;
    }
    if (packet & TIOCPKT_IOCTL) {
        keepEvents();
        events |= changedSettings;
    }
    return {TerminalInput::Kind::event, 0, events};
}

// The kernel gives at most a page at a time. A full one means that more may wait: a large write then reaches the port in
// one request, not in many that each wake somebody.
TerminalInput Pty::read(std::span<std::uint8_t> space) {
    if (pendingEvents_ != 0) {
        return {TerminalInput::Kind::event, 0, std::exchange(pendingEvents_, 0)};
    }
    TerminalInput input = readOnce(space);
    std::size_t last = input.length;
    while (input.kind == TerminalInput::Kind::data && last >= fullRead && space.size() - input.length >= fullRead) {
        TerminalInput more = readOnce(space.subspan(input.length));
        if (more.kind == TerminalInput::Kind::event) {
            pendingEvents_ = more.events;
        }
        if (more.kind != TerminalInput::Kind::data) {
            break;   // closed is seen again
        }
        last = more.length;
        input.length += last;
    }
    return input;
}

std::size_t Pty::waiting() {
    int bytes = 0;
    return ::ioctl(master_.get(), FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
}

std::size_t Pty::write(std::span<const std::uint8_t> bytes) {
    ssize_t length = ::write(master_.get(), bytes.data(), bytes.size());
    if (length > 0) {
        return static_cast<std::size_t>(length);
    }
    // Full. With nobody there to read, the bytes are for nobody.
    return hungUp() ? bytes.size() : 0;
}

LineSettings Pty::settings() {
    termios2 settings = {};
    if (::ioctl(master_.get(), TCGETS2, &settings) != 0) {
        return {};
    }
    return {settings.c_ospeed, (settings.c_cflag & CSTOPB) != 0};
}

void Pty::discardWritten() {
    ::ioctl(master_.get(), TCFLSH, TCOFLUSH);
}

}  // namespace comport
