// An HTTP server on loopback that answers with scripted bytes, broken ones too.

#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// Serves from its own threads until it is destroyed, on a port that the system chose.
class HttpServer {
 public:
  /// What happens to the connection when the answer has been sent.
  enum class Then {
    keep,   ///< the next request is waited for
    close,  ///< it is closed
    reset,  ///< it is reset
    again,  ///< the answer is sent again, until the client has had enough
  };

  /// What a request is answered with, and what becomes of its connection.
  struct Answer {
    // Not explicit, so that a list of texts is a list of answers.
    Answer(std::string answerBytes, Then afterwards = Then::keep)
        : bytes(std::move(answerBytes)), then(afterwards) {}

    std::string bytes;
    Then then;
  };

  HttpServer();
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// "http://127.0.0.1:PORT"
  [[nodiscard]] std::string url() const;

  /// Answers requests for `path` with exactly these bytes. Unknown paths get a 404.
  void answer(const std::string& path, const std::string& bytes, Then then = Then::close);

  /// Answers the first request for `path` with the first of these, the next with the second, and so
  /// on; from the last one on always with that.
  void answerInTurn(const std::string& path, std::vector<Answer> answers);

  /// From now on answers every request with what `answer` says of its head, on the thread of its
  /// connection, and remembers none.
  void answerAll(std::function<Answer(const std::string& head)> answer);

  /// The request heads so far, in the order of their arrival.
  [[nodiscard]] std::vector<std::string> requests() const;
  /// How many connections were made.
  [[nodiscard]] int connections() const { return connections_; }

 private:
  void acceptAll();
  void serve(int connection);
  [[nodiscard]] static bool sendAll(int connection, const std::string& bytes);
  [[nodiscard]] Answer answerTo(const std::string& head);

  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> connections_ = 0;
  mutable std::mutex mutex_;                            ///< of what follows
  std::map<std::string, std::vector<Answer>> answers_;  ///< in turn; the last one stays
  std::function<Answer(const std::string& head)> answerAll_;
  std::vector<std::string> requests_;
  std::vector<int> open_;
  std::vector<std::thread> threads_;
  std::thread acceptor_;
};

/// A whole answer: status line, `headers` (each with its line end), a length, and the body.
[[nodiscard]] std::string httpAnswer(const std::string& status, const std::string& body,
                                     const std::string& headers = "");
