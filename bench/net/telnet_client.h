// A telnet client with the COM port option (RFC 2217) that opens a port as pySerial's does and then moves bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

struct telnet_t;
union telnet_event_t;

// Payload as it goes over the wire: 0xFF doubled.
std::vector<std::uint8_t> escaped(std::span<const std::uint8_t> data);

class TelnetClient {
public:
    // Connects to the loopback address (for 5 s, while nobody listens) and negotiates BINARY, SGA and COM-PORT; sets 115200 8N1
    // and waits for each acknowledgement. `lines`: the same for DTR, RTS and purge, which a server on a terminal leaves open.
    // `server` names it in messages.
    TelnetClient(const char* server, unsigned short port, bool lines);
    ~TelnetClient();
    TelnetClient(const TelnetClient&) = delete;
    TelnetClient& operator=(const TelnetClient&) = delete;

    // Bytes as they are, all of them.
    void writeAll(std::span<const std::uint8_t> wire);
    // What can be written now; 0 when nothing can.
    std::size_t writeSome(std::span<const std::uint8_t> wire);
    // Waits for what comes and gives its payload to `take`, in runs. With `space`: or until something can be written.
    using Take = std::function<void(std::span<const std::uint8_t>)>;
    void receive(const Take& take, bool space = false);
    // Says a line and reads up to an answer.
    void command(const std::string& line, const std::string& answer);

private:
    static void event(telnet_t* telnet, telnet_event_t* event, void* self);
    void connectTo(unsigned short port);
    void negotiate();
    void flush();
    void set(std::uint8_t command, std::vector<std::uint8_t> value);

    [[noreturn]] void fail(const std::string& what) const;

    const char* const server_;
    int fd_ = -1;
    std::unique_ptr<telnet_t, void (*)(telnet_t*)> telnet_;
    const Take* take_ = nullptr;
    std::vector<char> piece_;
    std::vector<std::uint8_t> output_;      // what libtelnet has to say
    std::string error_;
    std::set<std::pair<int, int>> agreed_;  // the server's verbs and options
    std::vector<std::uint8_t> answer_;      // the last one of the COM port option
};
