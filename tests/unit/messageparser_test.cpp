// MessageParser: the shared tables of requests and of responses give their
// verdicts however the bytes are split, and the limits hold to the byte.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "sf/http/messageparser.h"
#include "support/testsupport.h"

using sf::MessageParser;

namespace {

struct Case {
  std::string status;
  MessageParser::Method answering;  // responses: what the request was
  std::string bytes;
  size_t end;  // where the message ends: a ^ in the table, else at the end
};

std::string unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      out += s[i];
      continue;
    }
    char e = s[++i];
    if (e == 'x') {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += e == 'r' ? '\r' : e == 'n' ? '\n' : e == 't' ? '\t' : e;
    }
  }
  return out;
}

std::vector<Case> table(const char* name, bool responses) {
  std::ifstream in(sftest::sourceDir() / "tests/data/http" / name);
  std::vector<Case> cases;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    Case c{line.substr(0, 3), MessageParser::GET, line.substr(4), 0};
    if (responses) {
      std::string word = c.bytes.substr(0, c.bytes.find(' '));
      c.bytes.erase(0, word.size() + 1);
      if (word != "GET")
        c.answering = word == "HEAD" ? MessageParser::HEAD : MessageParser::CONNECT;
    }
    c.bytes = unescape(c.bytes);
    c.end = c.bytes.find('^');
    if (c.end == std::string::npos)
      c.end = c.bytes.size();
    else
      c.bytes.erase(c.end, 1);
    cases.push_back(c);
  }
  return cases;
}

// The parser's verdict on bytes fed in pieces of the given sizes (the last
// size repeats): the refusal's status, "200" for a whole message, "more"
// when it waits for bytes; and how many bytes it took.
std::string verdict(MessageParser& p, const std::string& bytes, const std::vector<size_t>& sizes,
                    size_t* taken = nullptr) {
  size_t at = 0, k = 0;
  while (at < bytes.size() && !p.complete() && !p.failed()) {
    size_t n = std::min(sizes[std::min(k++, sizes.size() - 1)], bytes.size() - at);
    size_t used = p.feed(bytes.data() + at, n);
    at += used;
    if (used < n && !p.complete() && !p.failed()) return "stalled";
  }
  if (taken) *taken = at;
  return p.failed() ? p.error().status : p.complete() ? "200" : "more";
}

}  // namespace

TEST(MessageParser, TableVerdictsAndEndsDoNotDependOnTheSplit) {
  std::mt19937 rng(7);
  for (bool responses : {false, true}) {
    std::vector<Case> cases = table(responses ? "responses.txt" : "requests.txt", responses);
    ASSERT_GT(cases.size(), 30u);
    for (const Case& c : cases) {
      // whole, byte by byte, and in random pieces of 1 to 9 bytes
      std::vector<std::vector<size_t>> splits = {{c.bytes.size()}, {1}};
      for (int round = 0; round < 20; ++round) {
        std::vector<size_t>& sizes = splits.emplace_back();
        for (size_t sum = 0; sum < c.bytes.size(); sum += sizes.back())
          sizes.push_back(1 + rng() % 9);
      }
      for (const auto& sizes : splits) {
        MessageParser p(1024, 65535, responses ? MessageParser::RESPONSE : MessageParser::REQUEST);
        if (responses) p.answering(c.answering, false);
        size_t taken = 0;
        std::string v = verdict(p, c.bytes, sizes, &taken);
        if (responses && v == "more") {  // a response that ends only when the peer closes
          p.finish();
          v = p.failed() ? p.error().status : "eof";
        }
        EXPECT_EQ(v, c.status) << c.bytes;
        if (responses && c.status != "502") {
          EXPECT_EQ(taken, c.end) << c.bytes;
        }
      }
    }
  }
}

TEST(MessageParser, StopsAtTheMessageEndAndKeepsWhatItSaid) {
  const std::string first =
      "POST /p?q HTTP/1.1\r\nHost: h\r\nX-A: one two \r\nConnection: keep-alive, close\r\n"
      "Transfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n2\r\nde\r\n0\r\nX-T: t\r\n\r\n";
  const std::string stream = first + "GET /next HTTP/1.1\r\n";
  MessageParser p(1024, 100);
  p.pauseAtChunks(true);
  std::string pieces;
  size_t at = 0;
  while (!p.complete()) {
    at += p.feed(stream.data() + at, stream.size() - at);
    pieces += p.body() + "|";
    p.body().clear();
    p.resume();
  }
  EXPECT_EQ(pieces, "abc|de||");
  EXPECT_EQ(at, first.size());
  EXPECT_EQ(p.methodWord() + " " + p.target(), "POST /p?q");
  EXPECT_EQ(p.connection(), MessageParser::CLOSE);
  ASSERT_EQ(p.fields().size(), 3u);  // the trailer and Transfer-Encoding are not kept
  EXPECT_EQ(p.fields()[1].first + "=" + p.fields()[1].second, "X-A=one two");
}

TEST(MessageParser, HeaderAndBodyLimitsHoldToTheByte) {
  // A header block of exactly the limit is read; one byte more is refused.
  const std::string head = "GET / HTTP/1.1\r\nHost: x\r\nX-Pad: ";
  const std::string block = head + std::string(100 - head.size() - 4, 'p') + "\r\n\r\n";
  MessageParser exact(100, 65535), over(99, 65535), p(1024, 65535), q(1024, 65535);
  size_t taken = 0;
  EXPECT_EQ(verdict(exact, block, {1}, &taken), "200");
  EXPECT_EQ(taken, 100u);
  EXPECT_EQ(verdict(over, block, {1}, &taken), "413");
  EXPECT_EQ(taken, 100u);  // refused on the byte past the limit, not later

  // Chunks may total the body limit, and not one byte more; a chunked body
  // of many small chunks is bounded by the body limit alone.
  auto chunked = [](int chunks) {
    std::string r = "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < chunks; ++i) r += "1\r\nz\r\n";
    return r + "0\r\n\r\n";
  };
  std::string all = chunked(65535);
  EXPECT_EQ(p.feed(all.data(), all.size()), all.size());
  EXPECT_TRUE(p.complete());
  EXPECT_EQ(p.body().size(), 65535u);
  EXPECT_EQ(verdict(q, chunked(65536), {4096}), "413");
}
