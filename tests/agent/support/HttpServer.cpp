#include "HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

HttpServer::HttpServer() : listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::abort();
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptAll(); });
}

HttpServer::~HttpServer() {
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  {
    const std::lock_guard lock(mutex_);
    for (const int connection : open_) shutdown(connection, SHUT_RDWR);
  }
  for (std::thread& thread : threads_) thread.join();
}

std::string HttpServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

void HttpServer::answer(const std::string& path, const std::string& bytes, Then then) {
  const std::lock_guard lock(mutex_);
  answers_[path] = {{bytes, then}};
}

void HttpServer::answerInTurn(const std::string& path, std::vector<Answer> answers) {
  const std::lock_guard lock(mutex_);
  answers_[path] = std::move(answers);
}

void HttpServer::answerAll(std::function<Answer(const std::string& head)> answer) {
  const std::lock_guard lock(mutex_);
  answerAll_ = std::move(answer);
}

std::vector<std::string> HttpServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void HttpServer::acceptAll() {
  while (true) {
    const int connection = ::accept(listener_, nullptr, nullptr);
    if (connection < 0) return;
    ++connections_;
    const std::lock_guard lock(mutex_);
    open_.push_back(connection);
    threads_.emplace_back([this, connection] { serve(connection); });
  }
}

HttpServer::Answer HttpServer::answerTo(const std::string& head) {
  const std::size_t start = head.find(' ') + 1;
  const std::string path = head.substr(start, head.find(' ', start) - start);
  const std::lock_guard lock(mutex_);
  if (answerAll_) return answerAll_(head);
  requests_.push_back(head);
  const auto found = answers_.find(path);
  if (found == answers_.end()) return {httpAnswer("404 Not Found", "none"), Then::close};
  std::vector<Answer>& answers = found->second;
  Answer answer = answers.front();
  if (answers.size() > 1) answers.erase(answers.begin());
  return answer;
}

bool HttpServer::sendAll(int connection, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count =
        ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

void HttpServer::serve(int connection) {
  std::string received;
  char piece[4096];
  while (true) {
    // What does not begin with a method is no HTTP.
    if (!received.empty() && (received.front() < 'A' || received.front() > 'Z')) break;
    const std::size_t end = received.find("\r\n\r\n");
    if (end == std::string::npos) {
      const ssize_t count = ::recv(connection, piece, sizeof piece, 0);
      if (count <= 0) break;
      received.append(piece, static_cast<std::size_t>(count));
      continue;
    }
    const Answer answer = answerTo(received.substr(0, end));
    received.erase(0, end + 4);
    bool isSent = sendAll(connection, answer.bytes);
    while (isSent && answer.then == Then::again) isSent = sendAll(connection, answer.bytes);
    if (answer.then == Then::keep) continue;
    if (answer.then == Then::reset) {
      const linger now{1, 0};
      ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    } else {
      shutdown(connection, SHUT_WR);
    }
    break;
  }
  const std::lock_guard lock(mutex_);
  std::erase(open_, connection);
  ::close(connection);
}

std::string httpAnswer(const std::string& status, const std::string& body,
                       const std::string& headers) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
         headers + "\r\n" + body;
}
