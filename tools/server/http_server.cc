#include "tools/server/http_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

namespace brivet::tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kReadChunk = 64u << 10;

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 60000));
}

// Appends what the peer sends next; false when it closed, failed or was silent until `deadline`.
bool readMore(int fd, std::string& buffer, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, millisecondsUntil(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char chunk[kReadChunk];
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffer.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
}

bool sendAll(int fd, std::string_view bytes, Clock::time_point deadline) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p{fd, POLLOUT, 0};
      if (::poll(&p, 1, millisecondsUntil(deadline)) <= 0) return false;
      continue;
    }
    return false;
  }
  return true;
}

bool respond(int fd, const HTTPServerResponse& response, bool keepAlive, Clock::time_point deadline) {
  std::string bytes =
      responseHead(response.status, response.contentType, response.body.size(), keepAlive, response.fields);
  bytes += response.body;
  return sendAll(fd, bytes, deadline);
}

// Answers a request the server will not read and closes gently: what the
// client is still sending is read and dropped for a moment, so that closing
// with unread bytes does not reset the connection before the client has read
// the answer.
void refuse(int fd, const HTTPServerResponse& response) {
  const Clock::time_point until = Clock::now() + std::chrono::seconds(2);
  if (!respond(fd, response, false, until)) return;
  ::shutdown(fd, SHUT_WR);
  std::string dropped;
  std::size_t total = 0;
  while (total < (64u << 20) && readMore(fd, dropped, until)) {
    total += dropped.size();
    dropped.clear();
  }
}

}  // namespace

struct HTTPServer::State {
  struct Connection {
    int fd = -1;  // -1 once its thread closed it
    std::thread thread;
  };

  Options options;
  Handler handler;
  ErrorHandler errorHandler;
  int listenFd = -1;
  int wakeRead = -1;
  int wakeWrite = -1;
  int port = 0;
  std::thread acceptor;

  std::mutex mu;
  bool stopping = false;  // guarded by mu
  std::list<Connection> connections;  // guarded by mu

  ~State() {
    for (int fd : {listenFd, wakeRead, wakeWrite}) {
      if (fd >= 0) ::close(fd);
    }
  }

  void acceptLoop() {
    for (;;) {
      pollfd p[2] = {{listenFd, POLLIN, 0}, {wakeRead, POLLIN, 0}};
      const int ready = ::poll(p, 2, -1);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0 || (p[1].revents & POLLIN) != 0) return;
      const int fd = ::accept(listenFd, nullptr, nullptr);
      if (fd < 0) continue;
      const int on = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      {
        std::lock_guard<std::mutex> lock(mu);
        reapFinished();
        if (!stopping && connections.size() < options.maxConnections) {
          Connection& connection = connections.emplace_back();
          connection.fd = fd;
          connection.thread = std::thread([this, &connection, fd] {
            serve(fd);
            {
              std::lock_guard<std::mutex> done(mu);
              connection.fd = -1;
            }
            ::close(fd);
          });
          continue;
        }
      }
      const HTTPServerResponse busy =
          errorHandler(HTTPWireError{503, "busy", "the server is serving as many connections as it takes", ""});
      respond(fd, busy, false, Clock::now() + std::chrono::milliseconds(200));
      ::close(fd);
    }
  }

  // Joins the threads of closed connections. Caller holds mu.
  void reapFinished() {
    for (auto it = connections.begin(); it != connections.end();) {
      if (it->fd < 0) {
        it->thread.join();
        it = connections.erase(it);
      } else {
        ++it;
      }
    }
  }

  void serve(int fd) {
    std::string buffer;
    for (;;) {
      const Clock::time_point idleUntil = Clock::now() + options.idleTimeout;
      std::optional<Clock::time_point> requestUntil;
      HeadScan scan;
      for (;;) {
        scan = scanRequestHead(buffer, options.limits);
        if (scan.state != HeadScan::State::NeedMore) break;
        if (!buffer.empty() && !requestUntil) requestUntil = Clock::now() + options.requestTimeout;
        if (!readMore(fd, buffer, requestUntil.value_or(idleUntil))) return;
      }
      if (!requestUntil) requestUntil = Clock::now() + options.requestTimeout;
      if (scan.state == HeadScan::State::Failed) {
        // What follows an unreadable head cannot be found reliably: answer and close.
        refuse(fd, errorHandler(scan.error));
        return;
      }
      const HTTPRequestHead& head = scan.head;
      const std::size_t total = scan.length + head.contentLength;
      if (head.expectContinue && buffer.size() < total &&
          !sendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n", *requestUntil)) {
        return;
      }
      while (buffer.size() < total) {
        if (!readMore(fd, buffer, *requestUntil)) return;
      }
      HTTPServerRequest request{head.method, head.path, head.query, buffer.substr(scan.length, head.contentLength)};
      buffer.erase(0, total);
      const HTTPServerResponse response = handler(request);
      if (response.dropConnection) return;
      if (!respond(fd, response, head.keepAlive, Clock::now() + options.requestTimeout) || !head.keepAlive) return;
    }
  }
};

Result<std::unique_ptr<HTTPServer>, std::string> HTTPServer::start(Options options, int port, Handler handler,
                                                                   ErrorHandler errorHandler) {
  auto state = std::make_shared<State>();
  state->options = options;
  state->handler = std::move(handler);
  state->errorHandler = std::move(errorHandler);
  const std::string where = "127.0.0.1:" + std::to_string(port);
  state->listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (state->listenFd < 0) return Failure{"cannot open a socket for " + where};
  const int on = 1;
  ::setsockopt(state->listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  socklen_t length = sizeof address;
  if (port < 0 || port > 65535 || ::bind(state->listenFd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(state->listenFd, 128) != 0 ||
      ::getsockname(state->listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return Failure{"cannot listen on " + where};
  }
  state->port = ntohs(address.sin_port);
  int wake[2];
  if (::pipe2(wake, O_CLOEXEC) != 0) return Failure{"cannot create the server's wake-up pipe"};
  state->wakeRead = wake[0];
  state->wakeWrite = wake[1];
  state->acceptor = std::thread([s = state.get()] { s->acceptLoop(); });
  return std::unique_ptr<HTTPServer>(new HTTPServer(std::move(state)));
}

HTTPServer::~HTTPServer() {
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->stopping = true;
  }
  const char byte = 0;
  while (::write(state_->wakeWrite, &byte, 1) < 0 && errno == EINTR) {
  }
  state_->acceptor.join();
  // Wakes every connection blocked on its socket; each closes its own descriptor.
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    for (State::Connection& connection : state_->connections) {
      if (connection.fd >= 0) ::shutdown(connection.fd, SHUT_RDWR);
    }
  }
  for (State::Connection& connection : state_->connections) connection.thread.join();
  state_->connections.clear();
}

int HTTPServer::port() const { return state_->port; }

}  // namespace brivet::tools
