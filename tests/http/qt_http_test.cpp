// QtHttp against a small HTTP server on 127.0.0.1 that the test runs on its own main thread.
#include "platform/qt/qt_http.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::qt {
namespace {

/// Answers each request with the canned status and body, or not at all when `hang` is set.
/// Keeps the head of every request it saw.
class TinyServer final {
 public:
  TinyServer() {
    server_.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server_, &QTcpServer::newConnection, [this] {
      while (QTcpSocket* socket = server_.nextPendingConnection()) {
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { read(socket); });
      }
    });
  }

  [[nodiscard]] std::string base() const {
    return "http://127.0.0.1:" + std::to_string(server_.serverPort());
  }

  int status = 200;
  std::string body;
  bool hang = false;
  /// Announces a 100 kB body and sends one byte of it every 50 ms.
  bool drip = false;
  /// Sends the body without a Content-Length (it ends when the connection closes).
  bool unannounced = false;
  std::vector<std::string> heads;

 private:
  void read(QTcpSocket* socket) {
    QByteArray& pending = buffers_[socket];
    pending += socket->readAll();
    const qsizetype end = pending.indexOf("\r\n\r\n");
    if (end < 0) return;
    heads.push_back(pending.left(end).toStdString());
    pending.clear();
    if (hang) return;
    if (drip) {
      const std::string head = "HTTP/1.1 200 X\r\nContent-Length: 100000\r\n\r\n";
      socket->write(head.data(), static_cast<qint64>(head.size()));
      auto* timer = new QTimer(socket);
      QObject::connect(timer, &QTimer::timeout, socket, [socket] { socket->write("x", 1); });
      timer->start(50);
      return;
    }
    if (unannounced) {
      const std::string reply = "HTTP/1.1 200 X\r\nConnection: close\r\n\r\n" + body;
      socket->write(reply.data(), static_cast<qint64>(reply.size()));
      socket->disconnectFromHost();
      return;
    }
    const std::string reply =
        "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: application/json\r\n" +
        "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    socket->write(reply.data(), static_cast<qint64>(reply.size()));
    socket->disconnectFromHost();
  }

  QTcpServer server_;
  std::map<QTcpSocket*, QByteArray> buffers_;
};

/// A completion's result, filled on the networking thread.
struct Outcome {
  std::mutex mutex;
  std::optional<HttpResponse> response;
  bool onMainThread = false;
  std::atomic<int> calls{0};

  Http::Completion completion() {
    return [this](const HttpResponse& r) {
      const std::lock_guard lock(mutex);
      response = r;
      onMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
      ++calls;
    };
  }
  /// Runs the main thread's events (the server lives there) until the completion ran or
  /// `seconds` passed.
  bool wait(double seconds = 10) {
    QElapsedTimer timer;
    timer.start();
    while (calls.load() == 0 && timer.elapsed() < seconds * 1000) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return calls.load() > 0;
  }
};

HttpRequest requestTo(const std::string& url, CachePolicy policy = CachePolicy::ignoreLocalCache) {
  HttpRequest r;
  r.url = url;
  r.headers = {{"User-Agent", "Tarry/9.9"}, {"X-Probe", "1"}};
  r.cachePolicy = policy;
  r.timeoutSec = 5;
  return r;
}

bool hasHeaderLine(const std::string& head, const std::string& line) {
  return head.find("\r\n" + line + "\r\n") != std::string::npos || head.ends_with("\r\n" + line);
}

TEST(QtHttpTest, AnswersArriveOnTheNetworkingThreadWithStatusBodyAndHeadersSent) {
  TinyServer server;
  std::string body = R"({"holdTickHz": 90, "text": "é🙂"})";
  body.push_back('\0');
  body += std::string(300000, 'x');  // larger than one read
  server.body = body;
  QtHttp http;
  Outcome outcome;
  http.get(requestTo(server.base() + "/api/tarry-config"), outcome.completion());
  ASSERT_TRUE(outcome.wait());
  EXPECT_TRUE(outcome.response->received);
  EXPECT_EQ(outcome.response->status, 200);
  EXPECT_EQ(outcome.response->body, body);
  EXPECT_TRUE(outcome.response->error.empty());
  EXPECT_FALSE(outcome.onMainThread);

  ASSERT_EQ(server.heads.size(), 1u);
  const std::string& head = server.heads[0];
  EXPECT_TRUE(head.starts_with("GET /api/tarry-config HTTP/1.1\r\n")) << head;
  EXPECT_TRUE(hasHeaderLine(head, "User-Agent: Tarry/9.9")) << head;
  EXPECT_TRUE(hasHeaderLine(head, "X-Probe: 1")) << head;
  // Ignoring the local cache also tells caches on the way to ask the server.
  EXPECT_TRUE(hasHeaderLine(head, "Cache-Control: no-cache")) << head;
}

TEST(QtHttpTest, ErrorStatusesAreAnswersNotTransportErrors) {
  TinyServer server;
  server.status = 404;
  server.body = "not here";
  QtHttp http;
  Outcome outcome;
  http.get(requestTo(server.base() + "/missing", CachePolicy::useProtocol), outcome.completion());
  ASSERT_TRUE(outcome.wait());
  EXPECT_TRUE(outcome.response->received);
  EXPECT_EQ(outcome.response->status, 404);
  EXPECT_EQ(outcome.response->body, "not here");
  EXPECT_TRUE(outcome.response->error.empty());
  ASSERT_EQ(server.heads.size(), 1u);
  EXPECT_FALSE(hasHeaderLine(server.heads[0], "Cache-Control: no-cache")) << server.heads[0];
}

TEST(QtHttpTest, RefusedAndSilentServersEndInAnError) {
  std::string closedBase;
  {
    TinyServer gone;
    closedBase = gone.base();
  }
  QtHttp http;
  Outcome refused;
  http.get(requestTo(closedBase + "/x"), refused.completion());
  ASSERT_TRUE(refused.wait());
  EXPECT_FALSE(refused.response->received);
  EXPECT_FALSE(refused.response->error.empty());

  TinyServer silent;
  silent.hang = true;
  Outcome timedOut;
  HttpRequest r = requestTo(silent.base() + "/x");
  r.timeoutSec = 0.3;
  QElapsedTimer timer;
  timer.start();
  http.get(r, timedOut.completion());
  ASSERT_TRUE(timedOut.wait());
  EXPECT_LT(timer.elapsed(), 5000);
  EXPECT_FALSE(timedOut.response->received);
  EXPECT_FALSE(timedOut.response->error.empty());
  EXPECT_EQ(timedOut.calls.load(), 1);
}

TEST(QtHttpTest, ADripFedAnswerEndsAtTheDeadlineOfTheWholeRequestAndIsNotedOnce) {
  TinyServer server;
  server.drip = true;
  std::vector<std::string> notes;
  std::mutex notesMutex;
  QtHttp http([&](const std::string& line) {
    const std::lock_guard lock(notesMutex);
    notes.push_back(line);
  });
  Outcome outcome;
  HttpRequest r = requestTo(server.base() + "/api/tarry-config");
  r.timeoutSec = 1;
  QElapsedTimer timer;
  timer.start();
  http.get(r, outcome.completion());
  ASSERT_TRUE(outcome.wait(8)) << "still waiting, though bytes kept coming";
  EXPECT_GE(timer.elapsed(), 900);
  EXPECT_LT(timer.elapsed(), 4000);
  EXPECT_FALSE(outcome.response->received);
  EXPECT_NE(outcome.response->error.find("within 1 s"), std::string::npos) << outcome.response->error;
  const std::lock_guard lock(notesMutex);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0], "GET " + server.base() + "/api/tarry-config: no complete answer within 1 s");
}

TEST(QtHttpTest, AnswersOverTheSizeLimitFailWhetherAnnouncedOrNot) {
  TinyServer server;
  server.body = std::string(3'000'000, '7');
  QtHttp http;
  for (const bool announced : {true, false}) {
    server.unannounced = !announced;
    Outcome outcome;
    HttpRequest r = requestTo(server.base() + "/dl/tarry/latest.json");
    r.maxBytes = 1'000'000;
    http.get(r, outcome.completion());
    ASSERT_TRUE(outcome.wait()) << announced;
    EXPECT_FALSE(outcome.response->received) << announced;
    EXPECT_TRUE(outcome.response->body.empty()) << announced;
    EXPECT_NE(outcome.response->error.find("larger than the 1000000 bytes allowed"), std::string::npos)
        << outcome.response->error;
  }
  // At the limit is fine.
  server.unannounced = false;
  server.body = std::string(1'000'000, '7');
  Outcome fits;
  HttpRequest r = requestTo(server.base() + "/dl/tarry/latest.json");
  r.maxBytes = 1'000'000;
  http.get(r, fits.completion());
  ASSERT_TRUE(fits.wait());
  EXPECT_TRUE(fits.response->received);
  EXPECT_EQ(fits.response->body.size(), 1'000'000u);
}

TEST(QtHttpTest, RequestsInFlightAtDestructionNeverComplete) {
  TinyServer silent;
  silent.hang = true;
  Outcome outcome;
  {
    QtHttp http;
    http.get(requestTo(silent.base() + "/x"), outcome.completion());
    QElapsedTimer timer;
    timer.start();
    while (silent.heads.empty() && timer.elapsed() < 5000)
      QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    ASSERT_EQ(silent.heads.size(), 1u);
  }
  EXPECT_FALSE(outcome.wait(0.3));
}

}  // namespace
}  // namespace tarry::platform::qt

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
