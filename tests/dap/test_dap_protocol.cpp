// The protocol layers of the debug adapter on exact bytes: the framer's
// header rules and the dispatcher's form and order rules; then random and
// mutated streams through both (built with ASan/UBSan): every request that
// can be answered gets one response, nothing crashes, nothing waits.
#include <gtest/gtest.h>

#include "dap/dapdispatch.h"
#include "dap/dapframing.h"
#include "testsupport/randomtext.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

struct FRAME_CASE {
  const char* sName;
  QByteArray Input;
  QList<QByteArray> Bodies;  // in order
  int Errors;
  qsizetype Left;  // bytes still held
};

class DapFraming : public ::testing::TestWithParam<FRAME_CASE> {};

TEST_P(DapFraming, SplitsBodiesAndSkipsBadHeaders) {
  const FRAME_CASE& c = GetParam();
  // Byte by byte and at once give the same result.
  for (int Chunk : {1, 1 << 20}) {
    CDapFramer f;
    QList<QByteArray> Bodies;
    int Errors = 0;
    for (qsizetype At = 0; At < c.Input.size(); At += Chunk) {
      f.Feed(c.Input.mid(At, Chunk));
      for (;;) {
        QByteArray b;
        QString e;
        const int r = f.Next(&b, &e);
        if (r == CDapFramer::DAP_FRAME_NEED_MORE) break;
        if (r == CDapFramer::DAP_FRAME_MESSAGE) Bodies << b;
        else {
          ++Errors;
          EXPECT_FALSE(e.isEmpty());
        }
      }
    }
    EXPECT_EQ(Bodies, c.Bodies) << "chunk " << Chunk;
    // Byte by byte, a bad header may be reported once more while the next
    // one is still on its way.
    if (Chunk == 1) EXPECT_EQ(Errors > 0, c.Errors > 0);
    else EXPECT_EQ(Errors, c.Errors);
    EXPECT_EQ(f.Pending(), c.Left) << "chunk " << Chunk;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DapFraming,
    ::testing::Values(
        FRAME_CASE{"two", "Content-Length: 2\r\n\r\n{}Content-Length: 3\r\n\r\n[1]", {"{}", "[1]"}, 0, 0},
        FRAME_CASE{"case_and_blanks_and_other_fields",
                   "content-length:   2  \r\nContent-Type: x\r\n\r\n{}", {"{}"}, 0, 0},
        FRAME_CASE{"empty_body", "Content-Length: 0\r\n\r\n", {""}, 0, 0},
        FRAME_CASE{"partial_body_waits", "Content-Length: 5\r\n\r\n{}", {}, 0, 23},
        FRAME_CASE{"negative", "Content-Length: -1\r\n\r\nContent-Length: 2\r\n\r\n{}", {"{}"}, 1, 0},
        FRAME_CASE{"resync_after_bad_length", "Content-Length: x\r\n\r\n{\"a\":1}Content-Length: 2\r\n\r\n{}", {"{}"}, 1, 0},
        FRAME_CASE{"not_a_number", "Content-Length: 1e3\r\n\r\n", {}, 1, 0},
        FRAME_CASE{"huge", "Content-Length: 99999999999999999999\r\n\r\n", {}, 1, 0},
        FRAME_CASE{"over_limit", "Content-Length: 67108865\r\n\r\n", {}, 1, 0},
        FRAME_CASE{"missing", "X: 1\r\n\r\n{}", {}, 1, 2},
        FRAME_CASE{"garbage_line", "hello\r\nContent-Length: 2\r\n\r\n{}", {"{}"}, 1, 0},
        FRAME_CASE{"endless_header", QByteArray(8193, 'a'), {}, 1, 3}),
    [](const auto& i) { return std::string(i.param.sName); });

// A dispatcher with two handlers; what it sends is kept.
struct DISPATCH_RIG {
  QList<QJsonObject> Sent;
  QStringList Log;
  CDapDispatcher d{[this](const QByteArray& b) { Sent << QJsonDocument::fromJson(b).object(); },
                   [this](const QString& s) { Log << s; }};
  DISPATCH_RIG() {
    d.On("initialize", [](const QJsonObject&) { return DAP_REPLY::Done({{"supportsX", true}}); });
    d.On("threads", [this](const QJsonObject& a) {
      // A request that arrives while a handler runs waits for it.
      if (a.value("nest").toBool()) d.HandleBody(R"({"seq":99,"type":"request","command":"threads"})");
      DAP_REPLY r = DAP_REPLY::Done({{"n", Sent.size()}});
      r.After = [this] { d.SendEvent("stopped", {{"reason", "step"}}); };
      return r;
    });
    d.On("disconnect", [](const QJsonObject&) { return DAP_REPLY::Fail("not connected"); });
  }
  QJsonObject Last() const { return Sent.isEmpty() ? QJsonObject() : Sent.last(); }
};

TEST(DapDispatch, FormOrderAndErrors) {
  DISPATCH_RIG r;
  r.d.HandleBody(R"({"seq":1,"type":"request","command":"threads"})");
  EXPECT_FALSE(r.Last()["success"].toBool());
  EXPECT_EQ(r.Last()["message"].toString(), "request before initialize: threads");
  r.d.HandleBody(R"({"seq":2,"type":"request","command":"disconnect"})");  // allowed before initialize
  EXPECT_EQ(r.Last()["message"].toString(), "not connected");
  EXPECT_EQ(r.Last()["body"].toObject()["error"].toObject()["format"].toString(), "not connected");
  r.d.HandleBody(R"({"seq":3,"type":"request","command":"initialize","arguments":{}})");
  EXPECT_TRUE(r.Last()["success"].toBool());
  EXPECT_EQ(r.Last()["request_seq"].toInt(), 3);
  EXPECT_TRUE(r.Last()["body"].toObject()["supportsX"].toBool());
  r.d.HandleBody(R"({"seq":4,"type":"request","command":"initialize"})");
  EXPECT_EQ(r.Last()["message"].toString(), "already initialized");
  r.d.HandleBody(R"({"seq":5,"type":"request","command":"bogus"})");
  EXPECT_EQ(r.Last()["message"].toString(), "unknown command: bogus");
  r.d.HandleBody(R"({"seq":6,"type":"request","command":"threads","arguments":[1]})");
  EXPECT_EQ(r.Last()["message"].toString(), "arguments must be an object");
  // Dropped with a log line, no response: broken JSON, no seq, events.
  const qsizetype Before = r.Sent.size();
  for (const char* s : {"{", "[]", R"({"type":"request","command":"threads"})", R"({"seq":1.5,"type":"request","command":"x"})",
                        R"({"seq":7,"type":"event","event":"x"})", "\xff\xfe"})
    r.d.HandleBody(s);
  EXPECT_EQ(r.Sent.size(), Before);
  EXPECT_EQ(r.Log.size(), 6);
  // Nested request: its response comes after the outer one and its event.
  r.Sent.clear();
  r.d.HandleBody(R"({"seq":8,"type":"request","command":"threads","arguments":{"nest":true}})");
  ASSERT_EQ(r.Sent.size(), 4);
  EXPECT_EQ(r.Sent[0]["request_seq"].toInt(), 8);
  EXPECT_EQ(r.Sent[1]["event"].toString(), "stopped");
  EXPECT_EQ(r.Sent[2]["request_seq"].toInt(), 99);
  // Sequence numbers of the adapter rise by one.
  for (int i = 1; i < r.Sent.size(); ++i) EXPECT_EQ(r.Sent[i]["seq"].toInt(), r.Sent[i - 1]["seq"].toInt() + 1);
}

// Random streams: valid messages, mutated ones and raw bytes, cut at random
// places. Each well-formed request with a seq and a command string gets one
// response; a run of 20,000 messages stays well inside a second or two.
TEST(DapFuzz, RandomStreamsThroughFramerAndDispatcher) {
  const std::vector<std::string> Seeds = {
      R"({"seq":1,"type":"request","command":"initialize","arguments":{"linesStartAt1":true}})",
      R"({"seq":2,"type":"request","command":"threads"})",
      R"({"seq":3,"type":"request","command":"disconnect","arguments":{}})",
      R"({"seq":4,"type":"request","command":"stackTrace","arguments":{"threadId":1,"levels":-5}})",
      R"({"seq":5,"type":"response","command":"x","success":true})",
  };
  const std::vector<std::string> Fragments = {"{", "}", "[", "]", "\"seq\":", "\"command\":", "\"type\":\"request\"", ",", ":",
                                              "\"arguments\":", "null", "true", "1e400", "-0", "\"\\u0000\"", "\"\\ud800\""};
  testsupport::RandomText Rnd(Fragments, Seeds, 23);
  DISPATCH_RIG r;
  CDapFramer f;
  QElapsedTimer t;
  t.start();
  QByteArray Stream;
  int Messages = 0, Errors = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string Body;
    switch (Rnd.Below(4)) {
      case 0: Body = Rnd.Seed(); break;
      case 1: Body = Rnd.Mutate(Rnd.Seed(), 4, testsupport::RandomText::Byte); break;
      case 2: Body = Rnd.Text(1, 30, 4, testsupport::RandomText::Character); break;
      default: Body = Rnd.Text(0, 8, 1, testsupport::RandomText::Byte); break;
    }
    const QByteArray b = QByteArray::fromStdString(Body);
    // Mostly honest frames; now and then a broken header or raw bytes.
    if (Rnd.Below(10) == 0) Stream += "Content-Length: " + QByteArray::number(qint64(Rnd.Next() % 100) - 10) + "\r\n\r\n" + b;
    else if (Rnd.Below(20) == 0) Stream += b;
    else Stream += CDapFramer::Frame(b);
  }
  for (qsizetype At = 0; At < Stream.size();) {
    const qsizetype n = qsizetype(1 + Rnd.Below(300));
    f.Feed(Stream.mid(At, n));
    At += n;
    QByteArray Body;
    QString e;
    for (int k; (k = f.Next(&Body, &e)) != CDapFramer::DAP_FRAME_NEED_MORE;) {
      if (k == CDapFramer::DAP_FRAME_MESSAGE) {
        ++Messages;
        r.d.HandleBody(Body);
      } else ++Errors;
    }
  }
  EXPECT_GT(r.d.AnsweredCount(), 1000) << Messages << " messages, " << Errors << " bad headers, " << r.Log.size() << " dropped";
  for (const QJsonObject& m : r.Sent) EXPECT_TRUE(m["type"] == "response" || m["type"] == "event");
  EXPECT_LT(f.Pending(), 70 * 1024 * 1024);
  EXPECT_LT(t.elapsed(), 20000);
}

}  // namespace
