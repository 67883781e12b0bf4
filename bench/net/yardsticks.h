// Servers to measure against.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/outside/drive.h"

struct telnet_t;
union telnet_event_t;

// A telnet server on a thread that agrees to everything, acknowledges the COM port option, and sends each byte back: no port
// behind it. Serves one client.
class TelnetEcho {
public:
    TelnetEcho();
    // The client must have gone.
    ~TelnetEcho();
    TelnetEcho(const TelnetEcho&) = delete;
    TelnetEcho& operator=(const TelnetEcho&) = delete;
    unsigned short port() const { return port_; }

private:
    static void event(telnet_t* telnet, telnet_event_t* event, void* self);
    void serve();
    bool flush();

    unsigned short port_ = 0;
    int listener_ = -1;
    int client_ = -1;
    std::unique_ptr<telnet_t, void (*)(telnet_t*)> telnet_;
    std::vector<char> output_;
    std::thread thread_;
};

// A terminal whose master end sends each byte back, on a thread.
class TerminalLoop {
public:
    TerminalLoop();
    ~TerminalLoop();
    TerminalLoop(const TerminalLoop&) = delete;
    TerminalLoop& operator=(const TerminalLoop&) = delete;
    const std::string& path() const { return path_; }

private:
    void serve();

    int master_ = -1;
    int stop_ = -1;  // eventfd
    std::string path_;
    std::unique_ptr<drive::Terminal> held_;  // so that the terminal does not hang up
    std::thread thread_;
};

// ser2net before such a terminal, without its delay of characters.
class Ser2net {
public:
    Ser2net();
    unsigned short port() const { return port_; }

private:
    TerminalLoop loop_;
    drive::TempDirectory directory_;
    unsigned short port_;
    std::unique_ptr<drive::Process> process_;
};
