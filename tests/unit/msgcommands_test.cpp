// Script commands for queues and messages, driven through the interpreter.
// Script threads and their listing by status run in sfhost (test_sfhost.py).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {

TEST(QueueCommands, MakeQueueForwardAndShowTheCurrentMessage) {
  sftest::ensureCommands();
  sftest::LogCapture log(5);
  sf::setVarInt("sf.qsize", 3);
  sf::eval("mkQ cmd-q");
  sf::MessageQ* q = sf::getQ("cmd-q");
  ASSERT_EQ(q->capacity(), 3);
  EXPECT_THROW(sf::eval("mkQ cmd-q"), sf::Xtcl);

  sf::TransactionContext* ctx = sf::getContext();
  EXPECT_THROW(sf::eval("enQ cmd-q"), sf::Xtcl);  // no current message

  sf::Message* m = ctx->message = new sf::Message;
  EXPECT_THROW(sf::eval("enQ no-such-queue"), sf::Xtcl);
  EXPECT_EQ(ctx->message, m);
  sf::eval("enQ cmd-q");
  EXPECT_EQ(ctx->message, nullptr);  // the queue owns it now

  // Capacity 3 holds 2: the refused message stays with us.
  sf::Message* second = ctx->message = new sf::Message;
  sf::eval("enQ cmd-q");
  sf::Message* third = ctx->message = new sf::Message;
  EXPECT_THROW(sf::eval("enQ cmd-q"), sf::Xtcl);
  EXPECT_EQ(ctx->message, third);
  EXPECT_TRUE(log.contains("enQ: queue cmd-q refused the current message"));
  EXPECT_EQ(q->deQ(), m);
  EXPECT_EQ(q->deQ(), second);
  delete m;
  delete second;
  sf::setContext(nullptr);  // deletes third with the context

  // The current message's environment and dump.
  EXPECT_THROW(sf::eval("sfenv HttpRequestURL"), sf::Xtcl);  // no current message
  EXPECT_THROW(sf::eval("sf_dumpMsg"), sf::Xtcl);

  m = new sf::Message;
  m->setenv("HttpRequestURL", "/index.html");
  m->data = new sf::Buffer;
  m->data->append("AB");
  sf::getContext()->message = m;
  EXPECT_EQ(sf::eval("sfenv HttpRequestURL"), "/index.html");
  EXPECT_EQ(sf::eval("sfenv Missing"), "");
  testing::internal::CaptureStderr();
  sf::eval("sf_dumpMsg");
  std::string dumped = testing::internal::GetCapturedStderr();
  EXPECT_NE(dumped.find("41 42"), std::string::npos) << dumped;
  sf::setContext(nullptr);
  EXPECT_EQ(sf::eval("sfThreadId"), std::to_string(sf::getThreadId()));
}

}  // namespace
