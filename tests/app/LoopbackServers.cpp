#include "LoopbackServers.h"

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Reads until `delimiter` or the peer closes; false on close or stop.
bool readUntil(int fd, std::string& buffer, std::string const& delimiter, std::atomic<bool> const& stop, std::string& out)
{
    for (;;) {
        auto at = buffer.find(delimiter);
        if (at != std::string::npos) {
            out = buffer.substr(0, at);
            buffer.erase(0, at + delimiter.size());
            return true;
        }
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, 100);
        if (stop) return false;
        if (r <= 0) continue;
        char chunk[4096];
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        buffer.append(chunk, static_cast<std::size_t>(n));
    }
}

void writeAll(int fd, std::string const& s)
{
    std::size_t off = 0;
    while (off < s.size()) {
        ssize_t n = write(fd, s.data() + off, s.size() - off);
        if (n <= 0) return;
        off += static_cast<std::size_t>(n);
    }
}

} // namespace

LoopbackServer::LoopbackServer(std::function<void(int, std::atomic<bool> const&)> serve)
{
    listen_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    bind(listen_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    listen(listen_, 16);
    socklen_t len = sizeof addr;
    getsockname(listen_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this, serve] {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
        while (!stop_ && std::chrono::steady_clock::now() < deadline) {
            pollfd p{listen_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            int fd = accept(listen_, nullptr, nullptr);
            if (fd < 0) continue;
            ++connections_;
            handlers_.emplace_back([this, fd, serve] {
                serve(fd, stop_);
                close(fd);
            });
        }
    });
}

LoopbackServer::~LoopbackServer()
{
    stop_ = true;
    thread_.join();
    for (auto& h : handlers_) h.join();
    close(listen_);
}

HttpServer::HttpServer(std::map<std::string, std::string> routes)
    : routes_(std::move(routes)), server_([this](int fd, std::atomic<bool> const& stop) {
          std::string buffer, head;
          if (!readUntil(fd, buffer, "\r\n\r\n", stop, head)) return;
          std::string path = head.substr(head.find(' ') + 1);
          path = path.substr(0, path.find(' '));
          {
              std::lock_guard<std::mutex> g(lock_);
              ++hits_[path];
          }
          if (path == "/hang") { // holds the connection and never answers
              while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(20));
              return;
          }
          auto it = routes_.find(path);
          if (it == routes_.end()) {
              writeAll(fd, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
              return;
          }
          writeAll(fd, "HTTP/1.1 200 OK\r\nContent-Type: application/xml\r\nContent-Length: " + std::to_string(it->second.size())
                           + "\r\nConnection: close\r\n\r\n" + it->second);
      })
{
}

int HttpServer::requests(std::string const& path) const
{
    std::lock_guard<std::mutex> g(lock_);
    auto it = hits_.find(path);
    return it == hits_.end() ? 0 : it->second;
}

SmtpSink::SmtpSink(bool refusing, int dataDelayMs)
    : refusing_(refusing), dataDelayMs_(dataDelayMs), server_([this](int fd, std::atomic<bool> const& stop) {
          std::string buffer, line;
          Message m;
          writeAll(fd, "220 127.0.0.1 test sink\r\n");
          while (readUntil(fd, buffer, "\r\n", stop, line)) {
              std::string verb = line.substr(0, 4);
              for (auto& c : verb) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
              if (verb == "EHLO" || verb == "HELO") writeAll(fd, "250 127.0.0.1\r\n");
              else if (verb == "MAIL") {
                  m.from = line.substr(10);
                  writeAll(fd, "250 OK\r\n");
              } else if (verb == "RCPT") {
                  if (refusing_) writeAll(fd, "550 No such mailbox here\r\n");
                  else {
                      m.to = line.substr(8);
                      writeAll(fd, "250 OK\r\n");
                  }
              } else if (verb == "DATA") {
                  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(dataDelayMs_);
                  while (!stop && std::chrono::steady_clock::now() < until)
                      std::this_thread::sleep_for(std::chrono::milliseconds(10));
                  writeAll(fd, "354 Go on\r\n");
                  std::string data;
                  if (!readUntil(fd, buffer, "\r\n.\r\n", stop, data)) return;
                  m.data = data;
                  {
                      std::lock_guard<std::mutex> g(lock_);
                      messages_.push_back(m);
                  }
                  writeAll(fd, "250 Queued\r\n");
              } else if (verb == "QUIT") {
                  writeAll(fd, "221 Bye\r\n");
                  return;
              } else {
                  writeAll(fd, "250 OK\r\n");
              }
          }
      })
{
}

std::vector<SmtpSink::Message> SmtpSink::messages() const
{
    std::lock_guard<std::mutex> g(lock_);
    return messages_;
}
