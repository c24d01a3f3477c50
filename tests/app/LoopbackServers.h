// Small servers for the tests, on 127.0.0.1 only, each on its own thread;
// they stop when destroyed, and by themselves after two minutes.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class LoopbackServer {
public:
    // `serve` handles one accepted connection (the socket is closed after).
    explicit LoopbackServer(std::function<void(int fd, std::atomic<bool> const& stop)> serve);
    ~LoopbackServer();
    int port() const { return port_; }
    int connections() const { return connections_.load(); }

private:
    int listen_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    std::thread thread_;
    std::vector<std::thread> handlers_;
};

// HTTP: GET of a path in `routes` answers 200 with the body; "/hang" never
// answers; anything else is 404.
class HttpServer {
public:
    explicit HttpServer(std::map<std::string, std::string> routes);
    std::string url(std::string const& path) const { return "http://127.0.0.1:" + std::to_string(server_.port()) + path; }
    int requests(std::string const& path) const;

private:
    std::map<std::string, std::string> routes_;
    mutable std::mutex lock_;
    std::map<std::string, int> hits_;
    LoopbackServer server_;
};

// SMTP: takes every message, or (refusing) turns every recipient away. A
// slow sink waits `dataDelayMs` before it lets the client send the text.
class SmtpSink {
public:
    struct Message {
        std::string from, to, data;
    };
    explicit SmtpSink(bool refusing = false, int dataDelayMs = 0);
    std::string url() const { return "smtp://127.0.0.1:" + std::to_string(server_.port()); }
    std::vector<Message> messages() const;

private:
    bool refusing_;
    int dataDelayMs_;
    mutable std::mutex lock_;
    std::vector<Message> messages_;
    LoopbackServer server_;
};
